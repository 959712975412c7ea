// The chunk scheduler, without Python: make native-test.  Every cell in
// exactly one chunk whatever the threads; the failure of the lowest chunk
// wins; on one thread the chunks run in order and the first failure ends them.
#include <atomic>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include "core/utils/ParallelFor.h"
#include "tests/native/Expect.h"

int main()
{
    for (unsigned threads : {1u, 2u, 5u, 64u}) {
        for (std::uint64_t n : {0ull, 1ull, 999ull, 1000ull, 123457ull}) {
            std::vector<std::atomic<int>> seen(n);
            kavra::ParallelChunks(n, 1000, threads, [&](std::uint64_t begin, std::uint64_t end) {
                EXPECT(begin % 1000 == 0 && end - begin <= 1000 && end <= n);
                for (std::uint64_t c = begin; c < end; ++c)
                    ++seen[c];
            });
            for (std::uint64_t c = 0; c < n; ++c)
                EXPECT(seen[c] == 1);
        }
        // Chunks 3 and 7 fail: the call rethrows chunk 3's failure, whatever ran first.
        std::vector<std::uint64_t> order;
        try {
            kavra::ParallelChunks(10000, 1000, threads, [&](std::uint64_t begin, std::uint64_t) {
                if (threads == 1)
                    order.push_back(begin);
                if (begin == 3000 || begin == 7000)
                    throw std::runtime_error(begin == 3000 ? "3" : "7");
            });
            EXPECT(false);
        } catch (const std::runtime_error& e) {
            EXPECT(std::string(e.what()) == "3");
        }
        if (threads == 1)
            EXPECT((order == std::vector<std::uint64_t>{0, 1000, 2000, 3000}));
    }
    std::printf("%s\n", failures ? "FAILED" : "parallel chunks: ok");
    return failures ? 1 : 0;
}
