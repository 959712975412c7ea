// The column kernels on plain memory, without Python: make native-test.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

#include "core/reductions/ColumnKernels.h"
#include "tests/native/Expect.h"

namespace columns = kavra::columns;

// The grid kernel over all columns at once, checked against the same
// columns reduced in three parts.
template <class Operation, class T>
std::vector<T> Grid(const std::vector<T>& in, std::ptrdiff_t columns)
{
    auto reduce = [&](std::ptrdiff_t parts) {
        std::vector<T> out(in.size());
        for (std::ptrdiff_t part = 0; part < parts; ++part) {
            const std::ptrdiff_t first = columns * part / parts, last = columns * (part + 1) / parts;
            std::vector<T> accumulator(last - first, Operation::template Initial<T>());
            columns::ReduceGridColumns<Operation>(reinterpret_cast<const char*>(in.data()), in.size(), columns,
                                                  accumulator.data(), reinterpret_cast<char*>(out.data()), first,
                                                  last);
        }
        return out;
    };
    const std::vector<T> whole = reduce(1), parts = reduce(3);
    EXPECT(std::memcmp(whole.data(), parts.data(), whole.size() * sizeof(T)) == 0);
    return whole;
}

struct Cell
{
    std::uint16_t i, j, k;
};

int main()
{
    // Two columns of two layers: (1, 3) and (2, 4).
    const std::vector<double> values = {1, 2, 3, 4};
    EXPECT((Grid<columns::Sum>(values, 2) == std::vector<double>{4, 6, 4, 6}));
    EXPECT((Grid<columns::Average>(values, 2) == std::vector<double>{2, 3, 2, 3}));
    EXPECT((Grid<columns::Max>(values, 2) == std::vector<double>{3, 4, 3, 4}));
    EXPECT((Grid<columns::Min>(values, 2) == std::vector<double>{1, 2, 1, 2}));
    // A partial last layer counts only where it has a cell.
    EXPECT((Grid<columns::Average>(std::vector<int>{-3, 1, 0}, 2) == std::vector<int>{-1, 1, -1}));
    // Integer sums wrap around; KMax starts at 0; NaN passes over KMin.
    const int big = std::numeric_limits<int>::max();
    EXPECT((Grid<columns::Sum>(std::vector<int>{big, 1}, 1) ==
            std::vector<int>{std::numeric_limits<int>::min(), std::numeric_limits<int>::min()}));
    EXPECT((Grid<columns::Max>(std::vector<float>{-2.0f, -1.0f}, 1) == std::vector<float>{0.0f, 0.0f}));
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT(Grid<columns::Min>(std::vector<double>{nan}, 1)[0] == std::numeric_limits<double>::max());
    // Large enough for the stores that bypass the caches (at least 1 MB).
    std::vector<double> large(1 << 18);
    for (std::size_t c = 0; c < large.size(); ++c)
        large[c] = double(c % 64);
    const std::vector<double> sums = Grid<columns::Sum>(large, 64);
    EXPECT(sums[5] == 5.0 * 4096 && sums[large.size() - 1] == 63.0 * 4096);

    // A selection, every second element of the input, with a repeated entry.
    const std::vector<long> input = {7, -1, 5, -1, 9, -1};
    const std::vector<Cell> cells = {{1, 0, 0}, {1, 0, 3}, {0, 1, 0}};
    std::vector<long> accumulator(4, 0), out(3);
    std::vector<int> counts(4, 0);
    columns::ReduceSelectedColumns<columns::Average>(reinterpret_cast<const char*>(input.data()), 2 * sizeof(long), 3,
                                                     cells.data(), 2, 4, accumulator.data(), counts.data(),
                                                     out.data());
    EXPECT((out == std::vector<long>{6, 6, 9}));

    if (failures == 0)
        std::printf("column kernels: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
