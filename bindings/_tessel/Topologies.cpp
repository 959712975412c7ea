// Python classes of the topologies: ITopology, ReservoirTopology and
// ReservoirSelectionTopology.
#include "TesselPython.h"

#include <string>

#include "tessel/strata/ReservoirTopology.h"

namespace bp = boost::python;
using tessel::core::ITopology;
using namespace tessel::strata;

namespace tessel {
namespace python {
namespace {

const long long maxDimension = 65535;

ReservoirTopologyPtr MakeTopology(bp::object nI, bp::object nJ, bp::object nK)
{
    return ReservoirTopologyPtr(new ReservoirTopology(
        static_cast<std::uint16_t>(IntegerArgument(nI.ptr(), 0, maxDimension, "nI")),
        static_cast<std::uint16_t>(IntegerArgument(nJ.ptr(), 0, maxDimension, "nJ")),
        static_cast<std::uint16_t>(IntegerArgument(nK.ptr(), 0, maxDimension, "nK"))));
}

std::string TopologyRepr(const ReservoirTopology& t)
{
    return "ReservoirTopology(" + std::to_string(t.nI) + ", " + std::to_string(t.nJ) + ", " + std::to_string(t.nK) +
           ")";
}

// Cells as an (n, 3) array-like of integer (i, j, k); an empty sequence
// selects nothing.
ReservoirSelectionTopologyPtr MakeSelection(const ReservoirTopologyPtr& parent, bp::object cells)
{
    if (!parent)
        Raise(PyExc_ValueError, "ReservoirSelectionTopology needs a parent ReservoirTopology, not None");
    bp::object arrayObject = AsArray(cells, "ReservoirSelectionTopology");
    PyArrayObject* array = reinterpret_cast<PyArrayObject*>(arrayObject.ptr());
    const char kind = PyArray_DESCR(array)->kind;
    std::vector<CellIJK> selected;
    if (PyArray_SIZE(array) == 0)
        return ReservoirSelectionTopologyPtr(new ReservoirSelectionTopology(parent, selected));
    if (PyArray_NDIM(array) != 2 || PyArray_DIM(array, 1) != 3)
        Raise(PyExc_ValueError, "ReservoirSelectionTopology needs cells as an (n, 3) array of (i, j, k)");
    if (kind != 'i' && kind != 'u')
        Raise(PyExc_TypeError, "ReservoirSelectionTopology needs integer cell coordinates");
    bp::object wide = CastArray(array, NPY_LONGLONG);
    const long long* ijk = static_cast<const long long*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(wide.ptr())));
    const long long dims[3] = {parent->nI, parent->nJ, parent->nK};
    const npy_intp n = PyArray_DIM(array, 0);
    selected.resize(static_cast<std::size_t>(n));
    for (npy_intp s = 0; s < n; ++s) {
        const long long* c = ijk + 3 * s;
        // Unsigned input above LLONG_MAX wraps to a negative number here and is refused as well.
        if (c[0] < 0 || c[0] >= dims[0] || c[1] < 0 || c[1] >= dims[1] || c[2] < 0 || c[2] >= dims[2])
            Raise(PyExc_ValueError, "selected cell " + std::to_string(s) + " = (" + std::to_string(c[0]) + ", " +
                                        std::to_string(c[1]) + ", " + std::to_string(c[2]) +
                                        ") lies outside the grid of " + std::to_string(dims[0]) + " x " +
                                        std::to_string(dims[1]) + " x " + std::to_string(dims[2]) + " cells");
        selected[s] = CellIJK{static_cast<std::uint16_t>(c[0]), static_cast<std::uint16_t>(c[1]),
                              static_cast<std::uint16_t>(c[2])};
    }
    return ReservoirSelectionTopologyPtr(new ReservoirSelectionTopology(parent, std::move(selected)));
}

bp::object SelectedCells(const ReservoirSelectionTopology& t)
{
    npy_intp dims[2] = {static_cast<npy_intp>(t.number_of_selected_cells), 3};
    bp::object result(bp::handle<>(PyArray_SimpleNew(2, dims, NPY_LONGLONG)));
    long long* out = static_cast<long long*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(result.ptr())));
    for (std::uint64_t s = 0; s < t.number_of_selected_cells; ++s) {
        out[3 * s] = t.selected_cells[s].i;
        out[3 * s + 1] = t.selected_cells[s].j;
        out[3 * s + 2] = t.selected_cells[s].k;
    }
    return result;
}

bp::object CellToSelection(const ReservoirSelectionTopology& t)
{
    npy_intp dims[1] = {static_cast<npy_intp>(t.parent_topology->number_of_cells())};
    bp::object result(bp::handle<>(PyArray_SimpleNew(1, dims, NPY_LONGLONG)));
    long long* out = static_cast<long long*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(result.ptr())));
    for (npy_intp c = 0; c < dims[0]; ++c)
        out[c] = t.cell_to_selection[c];
    return result;
}

std::string SelectionRepr(const ReservoirSelectionTopology& t)
{
    return "ReservoirSelectionTopology(" + TopologyRepr(*t.parent_topology) + ", " +
           std::to_string(t.number_of_selected_cells) + " cells)";
}

} // namespace

void RegisterTopologies()
{
    bp::class_<ITopology, boost::shared_ptr<ITopology>, boost::noncopyable>("ITopology", bp::no_init)
        .def("number_of_cells", &ITopology::number_of_cells);

    bp::class_<ReservoirTopology, ReservoirTopologyPtr, bp::bases<ITopology>, boost::noncopyable>("ReservoirTopology",
                                                                                                 bp::no_init)
        .def("__init__", bp::make_constructor(&MakeTopology))
        .add_property("nI", bp::make_getter(&ReservoirTopology::nI))
        .add_property("nJ", bp::make_getter(&ReservoirTopology::nJ))
        .add_property("nK", bp::make_getter(&ReservoirTopology::nK))
        .def("__repr__", &TopologyRepr);

    bp::class_<ReservoirSelectionTopology, ReservoirSelectionTopologyPtr, bp::bases<ITopology>, boost::noncopyable>(
        "ReservoirSelectionTopology", bp::no_init)
        .def("__init__", bp::make_constructor(&MakeSelection))
        .add_property("parent_topology",
                      bp::make_getter(&ReservoirSelectionTopology::parent_topology,
                                      bp::return_value_policy<bp::return_by_value>()))
        .add_property("nI", bp::make_getter(&ReservoirSelectionTopology::nI))
        .add_property("nJ", bp::make_getter(&ReservoirSelectionTopology::nJ))
        .add_property("nK", bp::make_getter(&ReservoirSelectionTopology::nK))
        .add_property("number_of_selected_cells",
                      bp::make_getter(&ReservoirSelectionTopology::number_of_selected_cells))
        .add_property("selected_cells", &SelectedCells)
        .add_property("cell_to_selection", &CellToSelection)
        .def("__repr__", &SelectionRepr);
}

} // namespace python
} // namespace tessel
