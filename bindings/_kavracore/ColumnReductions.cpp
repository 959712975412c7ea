// KMax, KMin, KSum and KAverage: each cell gets the reduced value of its
// column (all cells with one I and one J), in a new array of the input's
// shape and element type.  One pass accumulates per column, a second pass
// writes every cell's column value.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>

#include <boost/python.hpp>

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

#include "ArrayChecks.h"
#include "PyArrayWrapper.h"
#include "Registration.h"

namespace bp = boost::python;
using tessel::strata::ReservoirSelectionTopology;
using tessel::strata::ReservoirTopology;

namespace kavra {
namespace {

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
    static T Final(T a, int) { return a; }
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
    static T Final(T sum, int count) { return sum / static_cast<T>(count); }
};

// Element access through memcpy: the arrays may be unaligned.
template <class T>
T LoadAt(const char* address)
{
    T value;
    std::memcpy(&value, address, sizeof(T));
    return value;
}

// One accumulator per column of the grid, at the operation's initial value,
// laid out as the columns are numbered (i + nI * j).
template <class T, class Operation>
TPyArrayWrapper<T> StartAccumulator(npy_intp nI, npy_intp nJ)
{
    if constexpr (Operation::template Initial<T>() == T(0)) {
        return ZeroArray<T>(nJ, nI);
    } else {
        TPyArrayWrapper<T> accumulator(static_cast<int>(nJ), static_cast<int>(nI));
        T* data = reinterpret_cast<T*>(PyArray_DATA(accumulator.array()));
        std::fill(data, data + nI * nJ, Operation::template Initial<T>());
        return accumulator;
    }
}

template <class Operation, class T>
void AccumulateLayer(T* __restrict accumulator, const char* __restrict layer, npy_intp columns)
{
    for (npy_intp c = 0; c < columns; ++c)
        Operation::Update(accumulator[c], LoadAt<T>(layer + c * npy_intp(sizeof(T))));
}

// How the result is best written depends on where its memory comes from.
// A result beyond the second-level cache but below the allocator's largest
// reusable block (32 MB with glibc) mostly lies in reused memory that is
// no longer cached: stores that bypass the caches save reading every line
// before it is overwritten.  A larger result is fresh pages that the kernel
// has just zeroed, still cached, where plain stores are cheaper.
bool BypassCacheForResult(std::size_t bytes)
{
    return bytes >= (std::size_t(1) << 20) && bytes <= (std::size_t(32) << 20);
}

void CopyBypassingCache(char* destination, const char* source, std::size_t bytes)
{
#if defined(__x86_64__)
    std::size_t head = (16 - reinterpret_cast<std::uintptr_t>(destination) % 16) % 16;
    head = std::min(head, bytes);
    std::memcpy(destination, source, head);
    for (std::size_t at = head; at + 16 <= bytes; at += 16)
        _mm_stream_si128(reinterpret_cast<__m128i*>(destination + at),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + at)));
    const std::size_t done = head + (bytes - head) / 16 * 16;
    std::memcpy(destination + done, source + done, bytes - done);
#else
    std::memcpy(destination, source, bytes);
#endif
}

void CopyBypassingCacheDone()
{
#if defined(__x86_64__)
    _mm_sfence(); // the bypassing stores are weakly ordered
#endif
}

// ReservoirTopology: element c of the C-order flattening is cell
// c = i + nI * (j + nJ * k), so column i + nI * j of layer k is element
// column + k * nI * nJ.  The input is C-contiguous, so its flattening is a
// view with the element size as stride.
template <class T, class Operation>
bp::object ReduceColumns(const ReservoirTopology& grid, const bp::object& array)
{
    const TPyArrayWrapper<T> values = RavelArray<T>(array);
    const npy_intp n = PyArray_DIM(values.array(), 0);
    const TPyArrayWrapper<T> result(static_cast<int>(n));
    if (n > 0) {
        const npy_intp columns = npy_intp(grid.nI) * grid.nJ;
        // A 1D input passed a size check in 32 bits, so it may end inside a layer.
        const npy_intp layers = n / columns;
        const npy_intp rest = n % columns;
        const char* in = PyArray_BYTES(values.array());
        char* out = PyArray_BYTES(result.array());
        const npy_intp size = sizeof(T);

        // Pass 1: the column values, taking in one layer after the other, so
        // that per column the values go in with ascending K.
        const TPyArrayWrapper<T> accumulatorArray = StartAccumulator<T, Operation>(grid.nI, grid.nJ);
        T* const accumulator = reinterpret_cast<T*>(PyArray_DATA(accumulatorArray.array()));
        for (npy_intp k = 0; k < layers; ++k)
            AccumulateLayer<Operation>(accumulator, in + k * columns * size, columns);
        AccumulateLayer<Operation>(accumulator, in + layers * columns * size, rest);
        if constexpr (Operation::counts) {
            for (npy_intp column = 0; column < columns; ++column) {
                const int count = static_cast<int>(layers + (column < rest ? 1 : 0));
                if (count > 0)
                    accumulator[column] = Operation::Final(accumulator[column], count);
            }
        }

        // Pass 2: every layer of the result is a copy of the column values.
        const bool bypass = BypassCacheForResult(std::size_t(n) * sizeof(T));
        for (npy_intp k = 0; k < layers; ++k) {
            char* const layer = out + k * columns * size;
            if (bypass)
                CopyBypassingCache(layer, reinterpret_cast<const char*>(accumulator), columns * size);
            else
                std::memcpy(layer, accumulator, columns * size);
        }
        std::memcpy(out + layers * columns * size, accumulator, rest * size);
        if (bypass)
            CopyBypassingCacheDone();
    }
    // A three-dimensional input gets a result of its own shape (nK, nJ, nI).
    if (PyArray_NDIM(reinterpret_cast<PyArrayObject*>(array.ptr())) != 3)
        return result.object();
    npy_intp dims[3] = {grid.nK, grid.nJ, grid.nI};
    PyArray_Dims shape = {dims, 3};
    return bp::object(
        bp::handle<>(PyArray_Newshape(reinterpret_cast<PyArrayObject*>(result.object().ptr()), &shape, NPY_CORDER)));
}

// ReservoirSelectionTopology: element c of the one-dimensional array (any
// stride) is entry c of selected_cells, whose i and j lie inside the grid.
template <class T, class Operation>
bp::object ReduceColumns(const ReservoirSelectionTopology& selection, const bp::object& array)
{
    const TPyArrayWrapper<T> values(array);
    const npy_intp n = PyArray_DIM(values.array(), 0);
    const TPyArrayWrapper<T> result(static_cast<int>(n));
    const npy_intp nI = selection.parent_topology->nI;
    const npy_intp nJ = selection.parent_topology->nJ;
    const TPyArrayWrapper<T> accumulatorArray = StartAccumulator<T, Operation>(nI, nJ);
    std::optional<TPyArrayWrapper<int>> countArray;
    if constexpr (Operation::counts)
        countArray.emplace(ZeroArray<int>(nJ, nI));

    // The working arrays are new C-order arrays: aligned and contiguous.
    T* const accumulator = reinterpret_cast<T*>(PyArray_DATA(accumulatorArray.array()));
    int* const counts = countArray ? reinterpret_cast<int*>(PyArray_DATA(countArray->array())) : nullptr;
    const tessel::strata::CellIJK* const cells = selection.selected_cells;
    const char* in = PyArray_BYTES(values.array());
    const npy_intp stride = PyArray_STRIDE(values.array(), 0);
    for (npy_intp c = 0; c < n; ++c) {
        const npy_intp column = cells[c].i + nI * cells[c].j;
        Operation::Update(accumulator[column], LoadAt<T>(in + c * stride));
        if constexpr (Operation::counts)
            ++counts[column];
    }
    // Each column's final value once; columns without a selected cell are never read.
    if constexpr (Operation::counts) {
        for (npy_intp column = 0; column < nI * nJ; ++column)
            if (counts[column] > 0)
                accumulator[column] = Operation::Final(accumulator[column], counts[column]);
    }
    T* out = reinterpret_cast<T*>(PyArray_DATA(result.array()));
    for (npy_intp c = 0; c < n; ++c)
        out[c] = accumulator[cells[c].i + nI * cells[c].j];
    return result.object();
}

void CheckArray(const boost::shared_ptr<ReservoirTopology>& grid, const bp::object& array)
{
    CheckReservoirArray(grid, array);
}

void CheckArray(const boost::shared_ptr<ReservoirSelectionTopology>& selection, const bp::object& array)
{
    CheckSelectionArray(selection, array);
}

// The entry of one name and one topology kind: the topology must be given,
// the array must fit it and have fewer than 2^31 elements (the column counts
// are 32-bit), and its element type chooses the kernel.
template <class Operation, class Topology>
bp::object Reduce(boost::shared_ptr<Topology> topology, bp::object array)
{
    if (!topology)
        RaiseValueError(std::string(Operation::name) +
                        " needs a ReservoirTopology or a ReservoirSelectionTopology, got None");
    CheckArray(topology, array);
    const npy_intp size = PyArray_SIZE(reinterpret_cast<PyArrayObject*>(array.ptr()));
    if (size > std::numeric_limits<std::int32_t>::max())
        RaiseValueError(std::string(Operation::name) + " takes arrays of at most 2147483647 elements, got " +
                        std::to_string(size));
    return VisitElementType(ArrayTypeNumber(array), [&](auto zero) {
        return ReduceColumns<decltype(zero), Operation>(*topology, array);
    });
}

// Boost.Python tries the overloads of a name from the last registered, so a
// selection (or None) is matched first.
template <class Operation>
void RegisterReduction()
{
    bp::def(Operation::name, &Reduce<Operation, ReservoirTopology>);
    bp::def(Operation::name, &Reduce<Operation, ReservoirSelectionTopology>);
}

} // namespace

namespace python {

void RegisterColumnReductions()
{
    RegisterReduction<Max>();
    RegisterReduction<Min>();
    RegisterReduction<Sum>();
    RegisterReduction<Average>();
}

} // namespace python
} // namespace kavra
