// KMax, KMin, KSum and KAverage: each cell gets the reduced value of its
// column (all cells with one I and one J), in a new array of the input's
// shape and element type.  One pass accumulates per column into working
// arrays of nI x nJ, a second pass writes every cell's column value.
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>

#include <boost/python.hpp>

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
    static void Update(T& a, T v) { if (a < v) a = v; }
};

// Starts at the largest finite value: a column of +inf or NaN gives it back.
struct Min : ColumnOperation
{
    static constexpr const char* name = "KMin";
    template <class T>
    static constexpr T Initial() { return std::numeric_limits<T>::max(); }
    template <class T>
    static void Update(T& a, T v) { if (v < a) a = v; }
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

struct Column
{
    npy_intp i;
    npy_intp j;
};

// Every cell of a ReservoirTopology: element c of the C-order flattening is
// cell c = i + nI * (j + nJ * k).
class GridColumns
{
public:
    typedef ReservoirTopology Topology;

    static void Check(const boost::shared_ptr<Topology>& grid, const bp::object& array)
    {
        CheckReservoirArray(grid, array);
    }

    explicit GridColumns(const Topology& grid) : nI(grid.nI), nJ(grid.nJ), m_nK(grid.nK) {}

    // The array passed its contiguity check, so this is a view, not a copy.
    template <class T>
    TPyArrayWrapper<T> Values(const bp::object& array) const { return RavelArray<T>(array); }

    Column At(npy_intp c) const { return Column{c % nI, (c / nI) % nJ}; }

    // A three-dimensional input gets a result of its own shape (nK, nJ, nI).
    bp::object Shaped(const bp::object& result, const bp::object& array) const
    {
        if (PyArray_NDIM(reinterpret_cast<PyArrayObject*>(array.ptr())) != 3)
            return result;
        npy_intp dims[3] = {m_nK, nJ, nI};
        PyArray_Dims shape = {dims, 3};
        return bp::object(
            bp::handle<>(PyArray_Newshape(reinterpret_cast<PyArrayObject*>(result.ptr()), &shape, NPY_CORDER)));
    }

    const npy_intp nI;
    const npy_intp nJ;

private:
    const npy_intp m_nK;
};

// The selected cells of a ReservoirSelectionTopology: element c of the
// one-dimensional array is entry c of selected_cells, whose i and j lie
// inside the parent grid.
class SelectionColumns
{
public:
    typedef ReservoirSelectionTopology Topology;

    static void Check(const boost::shared_ptr<Topology>& selection, const bp::object& array)
    {
        CheckSelectionArray(selection, array);
    }

    explicit SelectionColumns(const Topology& selection)
        : nI(selection.parent_topology->nI), nJ(selection.parent_topology->nJ), m_cells(selection.selected_cells)
    {
    }

    // Any stride: elements are read through the array's own.
    template <class T>
    TPyArrayWrapper<T> Values(const bp::object& array) const { return TPyArrayWrapper<T>(array); }

    Column At(npy_intp c) const { return Column{m_cells[c].i, m_cells[c].j}; }

    bp::object Shaped(const bp::object& result, const bp::object&) const { return result; }

    const npy_intp nI;
    const npy_intp nJ;

private:
    const tessel::strata::CellIJK* const m_cells;
};

// One accumulator per column, at the operation's initial value.
template <class T, class Operation>
TPyArrayWrapper<T> StartAccumulator(npy_intp nI, npy_intp nJ)
{
    if constexpr (Operation::template Initial<T>() == T(0)) {
        return ZeroArray<T>(nI, nJ);
    } else {
        TPyArrayWrapper<T> accumulator(static_cast<int>(nI), static_cast<int>(nJ));
        for (npy_intp i = 0; i < nI; ++i)
            for (npy_intp j = 0; j < nJ; ++j)
                accumulator.Set(i, j, Operation::template Initial<T>());
        return accumulator;
    }
}

template <class T, class Operation, class Columns>
bp::object ReduceColumns(const Columns& columns, const bp::object& array)
{
    const TPyArrayWrapper<T> values = columns.template Values<T>(array);
    const npy_intp n = PyArray_DIM(values.array(), 0);
    const TPyArrayWrapper<T> result(static_cast<int>(n));
    const TPyArrayWrapper<T> accumulator = StartAccumulator<T, Operation>(columns.nI, columns.nJ);
    std::optional<TPyArrayWrapper<int>> counts;
    if constexpr (Operation::counts)
        counts.emplace(ZeroArray<int>(columns.nI, columns.nJ));

    for (npy_intp c = 0; c < n; ++c) {
        const Column at = columns.At(c);
        T value = accumulator.Get(at.i, at.j);
        Operation::Update(value, values.Get(c));
        accumulator.Set(at.i, at.j, value);
        if constexpr (Operation::counts)
            counts->Set(at.i, at.j, counts->Get(at.i, at.j) + 1);
    }
    for (npy_intp c = 0; c < n; ++c) {
        const Column at = columns.At(c);
        const int count = counts ? counts->Get(at.i, at.j) : 0;
        result.Set(c, Operation::Final(accumulator.Get(at.i, at.j), count));
    }
    return columns.Shaped(result.object(), array);
}

// The entry of one name and one topology kind: the topology must be given,
// the array must fit it and have fewer than 2^31 elements (the column counts
// are 32-bit), and its element type chooses the kernel.
template <class Operation, class Columns>
bp::object Reduce(boost::shared_ptr<typename Columns::Topology> topology, bp::object array)
{
    if (!topology)
        RaiseValueError(std::string(Operation::name) +
                        " needs a ReservoirTopology or a ReservoirSelectionTopology, got None");
    Columns::Check(topology, array);
    const npy_intp size = PyArray_SIZE(reinterpret_cast<PyArrayObject*>(array.ptr()));
    if (size > std::numeric_limits<std::int32_t>::max())
        RaiseValueError(std::string(Operation::name) + " takes arrays of at most 2147483647 elements, got " +
                        std::to_string(size));
    const Columns columns(*topology);
    return VisitElementType(ArrayTypeNumber(array), [&](auto zero) {
        return ReduceColumns<decltype(zero), Operation>(columns, array);
    });
}

// Boost.Python tries the overloads of a name from the last registered, so a
// selection (or None) is matched first.
template <class Operation>
void RegisterReduction()
{
    bp::def(Operation::name, &Reduce<Operation, GridColumns>);
    bp::def(Operation::name, &Reduce<Operation, SelectionColumns>);
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
