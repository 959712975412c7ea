#include "ArrayChecks.h"

#include <cstdint>

#include "PyArrayWrapper.h"

namespace kavra {

namespace {

PyArrayObject* CheckedArray(const boost::python::object& array)
{
    if (!IsNumpyArray(array.ptr()))
        Raise(PyExc_ValueError, "Wrong array type, expecting a numpy array!");
    return reinterpret_cast<PyArrayObject*>(array.ptr());
}

} // namespace

void CheckReservoirArray(tessel::strata::ReservoirTopologyPtr topology, boost::python::object array)
{
    PyArrayObject* a = CheckedArray(array);
    if (!(PyArray_FLAGS(a) & NPY_ARRAY_C_CONTIGUOUS))
        Raise(PyExc_ValueError, "Wrong array layout, expecting a contiguous numpy array!");
    switch (PyArray_NDIM(a)) {
    case 1: {
        // The cell count is compared as an unsigned 32-bit number.
        const std::uint32_t cells =
            static_cast<std::uint32_t>(std::uint64_t(topology->nI) * topology->nJ * topology->nK);
        if (PyArray_DIM(a, 0) != static_cast<npy_intp>(cells))
            Raise(PyExc_ValueError, "Wrong 1D array size!");
        break;
    }
    case 3:
        if (PyArray_DIM(a, 2) != topology->nI || PyArray_DIM(a, 1) != topology->nJ || PyArray_DIM(a, 0) != topology->nK)
            Raise(PyExc_ValueError, "Wrong 3D array size!");
        break;
    default:
        Raise(PyExc_ValueError, "Wrong array dimension! Expecting 1D or 3D");
    }
}

void CheckSelectionArray(tessel::strata::ReservoirSelectionTopologyPtr topology, boost::python::object array)
{
    PyArrayObject* a = CheckedArray(array);
    if (PyArray_NDIM(a) != 1)
        Raise(PyExc_ValueError, "Wrong array dimension!");
    if (static_cast<std::uint64_t>(PyArray_DIM(a, 0)) != topology->number_of_selected_cells)
        Raise(PyExc_ValueError, "Wrong array size!");
}

} // namespace kavra
