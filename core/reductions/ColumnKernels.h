#pragma once

// The K-column reductions on plain memory, free of Python: every cell gets
// the reduced value of its column (all cells with one I and one J).  One
// pass accumulates per column, in ascending cell order; a second pass
// writes every cell's column value.  The caller provides the memory: the
// input, one accumulator per column at the operation's initial value (and
// for averages one zeroed count per column), and the result.
//
// Arithmetic stays in the element type T: integer sums wrap around at the
// width of T, integer means truncate toward zero, float sums are taken in
// T's own precision in a fixed order.  Elements are read as native values
// of T, wherever they lie (memcpy: unaligned input is fine).
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <type_traits>

#include "core/utils/Platform.h"

namespace kavra {
namespace columns {

// Integer sums wrap around at the width of T (through unsigned arithmetic,
// so that a signed overflow is well defined); float sums stay in T's own
// precision.
template <class T>
T Add(T a, T b)
{
    if constexpr (std::is_integral_v<T>) {
        typedef std::make_unsigned_t<T> U;
        return static_cast<T>(static_cast<U>(a) + static_cast<U>(b));
    } else {
        return a + b;
    }
}

// The operations.  A column's accumulator starts at Initial, takes the
// column's values through Update in ascending cell order, and gives the
// column's value through Final with the number of values it took (counted
// only where `counts` is set).  The comparisons are false on NaN, so a NaN
// never enters a maximum or a minimum.
struct ColumnOperation
{
    static constexpr bool counts = false;
    template <class T>
    static constexpr T Initial() { return T(0); }
    template <class T>
    static T Final(T a, std::ptrdiff_t) { return a; }
};

// Starts at 0 rather than at the lowest value of T: a column of negative
// values gives 0.
struct Max : ColumnOperation
{
    static constexpr const char* name = "KMax";
    template <class T>
    static void Update(T& a, T v) { a = a < v ? v : a; }
};

// Starts at the largest finite value: a column of +inf or NaN gives it back.
struct Min : ColumnOperation
{
    static constexpr const char* name = "KMin";
    template <class T>
    static constexpr T Initial() { return std::numeric_limits<T>::max(); }
    template <class T>
    static void Update(T& a, T v) { a = v < a ? v : a; }
};

struct Sum : ColumnOperation
{
    static constexpr const char* name = "KSum";
    template <class T>
    static void Update(T& a, T v) { a = Add(a, v); }
};

struct Average : Sum
{
    static constexpr const char* name = "KAverage";
    static constexpr bool counts = true;
    // Division in T: integer means truncate toward zero.  count >= 1 here.
    template <class T>
    static T Final(T sum, std::ptrdiff_t count) { return sum / static_cast<T>(count); }
};

// Whether a new accumulator must be filled with the initial value (a
// zero-filled one serves the others).
template <class Operation, class T>
constexpr bool StartsAtZero()
{
    return Operation::template Initial<T>() == T(0);
}

template <class Operation, class T>
void FillInitial(T* accumulator, std::ptrdiff_t columns)
{
    std::fill(accumulator, accumulator + columns, Operation::template Initial<T>());
}

template <class T>
T LoadAt(const char* address)
{
    T value;
    std::memcpy(&value, address, sizeof(T));
    return value;
}

template <class Operation, class T>
void AccumulateLayer(T* __restrict accumulator, const char* __restrict layer, std::ptrdiff_t columns)
{
    for (std::ptrdiff_t c = 0; c < columns; ++c)
        Operation::Update(accumulator[c], LoadAt<T>(layer + c * std::ptrdiff_t(sizeof(T))));
}

// A grid's cells in cell order: n contiguous elements of T at `in`, cell
// c = i + nI * (j + nJ * k), so column i + nI * j of layer k is element
// column + k * columns (columns = nI * nJ).  n need not be a whole number
// of layers.  Only the columns first..last-1 are reduced and written, so
// that parts of the columns can run side by side; each column takes the
// same values in the same order whatever the parts.  `accumulator` holds
// last - first elements at the initial value, for those columns; the result
// goes to the elements of those columns among the n elements of T at `out`.
template <class Operation, class T>
void ReduceGridColumns(const char* in, std::ptrdiff_t n, std::ptrdiff_t columns, T* accumulator, char* out,
                       std::ptrdiff_t first, std::ptrdiff_t last)
{
    if (n == 0 || first >= last)
        return;
    const std::ptrdiff_t layers = n / columns;
    const std::ptrdiff_t rest = n % columns;
    const std::ptrdiff_t width = last - first;
    const std::ptrdiff_t restWidth = std::max<std::ptrdiff_t>(0, std::min(last, rest) - first);
    const std::ptrdiff_t size = sizeof(T);

    // Pass 1: the column values, taking in one layer after the other, so
    // that per column the values go in with ascending K.
    for (std::ptrdiff_t k = 0; k < layers; ++k)
        AccumulateLayer<Operation>(accumulator, in + (k * columns + first) * size, width);
    AccumulateLayer<Operation>(accumulator, in + (layers * columns + first) * size, restWidth);
    if constexpr (Operation::counts) {
        for (std::ptrdiff_t column = first; column < last; ++column) {
            const std::ptrdiff_t count = layers + (column < rest ? 1 : 0);
            if (count > 0)
                accumulator[column - first] = Operation::Final(accumulator[column - first], count);
        }
    }

    // Pass 2: every layer of the result is a copy of the column values.
    const bool bypass = platform::BypassCacheForResult(std::size_t(n) * sizeof(T));
    for (std::ptrdiff_t k = 0; k < layers; ++k) {
        char* const layer = out + (k * columns + first) * size;
        if (bypass)
            platform::CopyBypassingCache(layer, reinterpret_cast<const char*>(accumulator), width * size);
        else
            std::memcpy(layer, accumulator, width * size);
    }
    std::memcpy(out + (layers * columns + first) * size, accumulator, restWidth * size);
    if (bypass)
        platform::CopyBypassingCacheDone();
}

// Selected cells: element c of n elements of T at `in`, `stride` bytes
// apart, belongs to cells[c] (anything with members i and j, such as
// tessel's CellIJK), whose i and j lie inside a grid of nI columns in I.  `accumulator` holds one element per column of the grid at the
// initial value, `counts` (averages only) one zero per column; the result
// goes to n contiguous elements of T at `out`.
template <class Operation, class T, class Cell>
void ReduceSelectedColumns(const char* in, std::ptrdiff_t stride, std::ptrdiff_t n, const Cell* cells,
                           std::ptrdiff_t nI, std::ptrdiff_t columns, T* accumulator, int* counts, T* out)
{
    for (std::ptrdiff_t c = 0; c < n; ++c) {
        const std::ptrdiff_t column = cells[c].i + nI * cells[c].j;
        Operation::Update(accumulator[column], LoadAt<T>(in + c * stride));
        if constexpr (Operation::counts)
            ++counts[column];
    }
    // Each column's final value once; columns without a selected cell are never read.
    if constexpr (Operation::counts) {
        for (std::ptrdiff_t column = 0; column < columns; ++column)
            if (counts[column] > 0)
                accumulator[column] = Operation::Final(accumulator[column], counts[column]);
    }
    for (std::ptrdiff_t c = 0; c < n; ++c)
        out[c] = accumulator[cells[c].i + nI * cells[c].j];
}

} // namespace columns
} // namespace kavra
