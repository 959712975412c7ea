// KMax, KMin, KSum and KAverage for Python: the checks of the array against
// the topology, the choice of the kernel by element type, the working and
// result arrays (NumPy arrays, so that a failed allocation raises NumPy's
// error), and the result's shape.  The reductions themselves are in
// core/reductions/ColumnKernels.h.
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include <boost/python.hpp>

#include "ArrayChecks.h"
#include "PyArrayWrapper.h"
#include "Registration.h"
#include "core/reductions/ColumnKernels.h"

namespace bp = boost::python;
using tessel::strata::ReservoirSelectionTopology;
using tessel::strata::ReservoirTopology;

namespace kavra {
namespace {

template <class T>
T* Data(const TPyArrayWrapper<T>& wrapper)
{
    return reinterpret_cast<T*>(PyArray_DATA(wrapper.array()));
}

// One accumulator per column of the grid, at the operation's initial value,
// laid out as the columns are numbered (i + nI * j).
template <class T, class Operation>
TPyArrayWrapper<T> StartAccumulator(npy_intp nI, npy_intp nJ)
{
    if constexpr (columns::StartsAtZero<Operation, T>()) {
        return ZeroArray<T>(nJ, nI);
    } else {
        TPyArrayWrapper<T> accumulator(static_cast<int>(nJ), static_cast<int>(nI));
        columns::FillInitial<Operation>(Data(accumulator), nI * nJ);
        return accumulator;
    }
}

// ReservoirTopology: the input is C-contiguous, so its flattening is a view
// in cell order.  A three-dimensional input gets a result of its own shape
// (nK, nJ, nI).
template <class T, class Operation>
bp::object ReduceColumns(const ReservoirTopology& grid, const bp::object& array)
{
    const TPyArrayWrapper<T> values = RavelArray<T>(array);
    const npy_intp n = PyArray_DIM(values.array(), 0);
    const TPyArrayWrapper<T> result(static_cast<int>(n));
    if (n > 0) {
        const TPyArrayWrapper<T> accumulator = StartAccumulator<T, Operation>(grid.nI, grid.nJ);
        const npy_intp columns = npy_intp(grid.nI) * grid.nJ;
        columns::ReduceGridColumns<Operation>(PyArray_BYTES(values.array()), n, columns, Data(accumulator),
                                              PyArray_BYTES(result.array()), 0, columns);
    }
    if (PyArray_NDIM(reinterpret_cast<PyArrayObject*>(array.ptr())) != 3)
        return result.object();
    npy_intp dims[3] = {grid.nK, grid.nJ, grid.nI};
    PyArray_Dims shape = {dims, 3};
    return bp::object(
        bp::handle<>(PyArray_Newshape(reinterpret_cast<PyArrayObject*>(result.object().ptr()), &shape, NPY_CORDER)));
}

// ReservoirSelectionTopology: a one-dimensional array of any stride, one
// element per entry of selected_cells.
template <class T, class Operation>
bp::object ReduceColumns(const ReservoirSelectionTopology& selection, const bp::object& array)
{
    const TPyArrayWrapper<T> values(array);
    const npy_intp n = PyArray_DIM(values.array(), 0);
    const TPyArrayWrapper<T> result(static_cast<int>(n));
    const npy_intp nI = selection.parent_topology->nI;
    const npy_intp nJ = selection.parent_topology->nJ;
    const TPyArrayWrapper<T> accumulator = StartAccumulator<T, Operation>(nI, nJ);
    std::optional<TPyArrayWrapper<int>> counts;
    if constexpr (Operation::counts)
        counts.emplace(ZeroArray<int>(nJ, nI));
    columns::ReduceSelectedColumns<Operation>(PyArray_BYTES(values.array()), PyArray_STRIDE(values.array(), 0), n,
                                              selection.selected_cells, nI, nI * nJ, Data(accumulator),
                                              counts ? Data(*counts) : nullptr, Data(result));
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
        Raise(PyExc_ValueError,
              std::string(Operation::name) + " needs a ReservoirTopology or a ReservoirSelectionTopology, got None");
    CheckArray(topology, array);
    const npy_intp size = PyArray_SIZE(reinterpret_cast<PyArrayObject*>(array.ptr()));
    if (size > std::numeric_limits<std::int32_t>::max())
        Raise(PyExc_ValueError, std::string(Operation::name) + " takes arrays of at most 2147483647 elements, got " +
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
    RegisterReduction<columns::Max>();
    RegisterReduction<columns::Min>();
    RegisterReduction<columns::Sum>();
    RegisterReduction<columns::Average>();
}

} // namespace python
} // namespace kavra
