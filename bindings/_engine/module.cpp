// kavra._engine: the cell calculations of the calculation list
// (core/Calculations.h), the K reductions and the pinch-out sifting over
// NumPy buffers and the region lists of kavra.tables' values, run in chunks
// on a pool of threads with the interpreter lock released.
//
// The entries: Cells.cpp (the calculations), Reductions.cpp (the K
// reductions), Maps.cpp (the column maps and totals per region),
// Volumetrics.cpp (the rows of a volumetrics table), the pinch-outs here; Calls.cpp makes every failure one
// Python error, once: a ValueError in kavra's words built from the facts the
// core's exception carries (kavra::Failure).
#include <Python.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/array.h>
#include <nanobind/stl/string.h>

#include "bindings/_engine/Calls.h"
#include "bindings/_engine/Engine.h"
#include "bindings/_engine/Equil.h"
#include "bindings/_engine/Geometry.h"
#include "bindings/_engine/Tables.h"
#include "core/vadra/TransmissibilityK.h"
#include "tessel/core/GridFunction.h"

namespace nb = nanobind;
using tessel::core::make_array_grid_function;

namespace kavra {
namespace engine {
namespace {

// A NumPy array that owns the elements of `values`.
template <class T>
nb::object ToArray(std::vector<T>&& values)
{
    auto* owned = new std::vector<T>(std::move(values));
    nb::capsule owner(owned, [](void* p) noexcept { delete static_cast<std::vector<T>*>(p); });
    return nb::cast(nb::ndarray<nb::numpy, T, nb::ndim<1>>(owned->data(), {owned->size()}, owner));
}

typedef nb::ndarray<const int, nb::ndim<1>, nb::c_contig, nb::device::cpu> Connections;
typedef nb::ndarray<const std::uint16_t, nb::ndim<2>, nb::shape<-1, 3>, nb::c_contig, nb::device::cpu> SelectedCells;

// transmissibility_k(nnc1, nnc2, grid, cells): the core's sifting of int32
// connection lists over the selection `cells` ((m, 3) uint16 (i, j, k), in
// selection order) of a grid of `grid` = (nI, nJ, nK) cells.  Gives the kept
// lists (int32) and the marks (float64, one per selected cell).
nb::tuple TransmissibilityK(Connections nnc1, Connections nnc2, std::array<std::uint16_t, 3> grid,
                            SelectedCells cells)
{
    std::vector<tessel::strata::CellIJK> selected(cells.shape(0));
    for (std::size_t s = 0; s < selected.size(); ++s)
        selected[s] = tessel::strata::CellIJK{cells(s, 0), cells(s, 1), cells(s, 2)};
    auto parent = boost::make_shared<tessel::strata::ReservoirTopology>(grid[0], grid[1], grid[2]);
    tessel::strata::ReservoirSelectionTopologyPtr selection;
    try {
        selection = boost::make_shared<tessel::strata::ReservoirSelectionTopology>(parent, std::move(selected));
    } catch (const std::out_of_range& e) {
        Refuse(PyExc_ValueError, std::string("transmissibility_k: ") + e.what());
    }
    auto marks = make_array_grid_function<double>(std::vector<double>(selection->number_of_selected_cells));
    auto first = boost::make_shared<std::vector<int>>(nnc1.data(), nnc1.data() + nnc1.shape(0));
    auto second = boost::make_shared<std::vector<int>>(nnc2.data(), nnc2.data() + nnc2.shape(0));
    try {
        CalcTransmissibilityK(first, second, selection, tessel::core::make_selection_view(selection, marks));
    } catch (...) {
        SetError(std::current_exception(), Words{"transmissibility_k", "", {}});
        throw nb::python_error();
    }
    std::vector<double> trank(marks->data, marks->data + marks->count);
    return nb::make_tuple(ToArray(std::move(*first)), ToArray(std::move(*second)), ToArray(std::move(trank)));
}

} // namespace

void RegisterSatfunc(nb::module_& m); // Satfunc.cpp

} // namespace engine
} // namespace kavra

NB_MODULE(_engine, m)
{
    using namespace kavra::engine;
    // A table that a thread still holds when the interpreter ends (a daemon
    // thread in a call) is not a leak of this module.
    nb::set_leak_warnings(false);
    m.doc() = "kavra's calculations over NumPy buffers, on a pool of threads (see kavra.calculations)";
    nb::class_<Tables>(m, "Tables", "The region lists of a table value, built once from its numbers")
        .def(nb::init<const std::string&, nb::handle>(), nb::arg("list"), nb::arg("regions"))
        .def_prop_ro("list", &Tables::Name)
        .def("__len__", &Tables::Count);
    static PyMethodDef unlocked[] = {
        {"calculate", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&Calculate)),
         METH_FASTCALL, "calculate($module, name, tables, regions, inputs, out, words, threads, /)\n--\n\n"
         "The calculation `name` of the list into out (bindings/_engine/Cells.cpp). Gives out."},
        {"reduce_grid", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&ReduceGrid)),
         METH_FASTCALL, "reduce_grid($module, name, values, result, columns, threads, /)\n--\n\n"
         "The K reduction `name` of a grid's values into result (bindings/_engine/Reductions.cpp). Gives None."},
        {"column_map", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&ColumnMap)), METH_FASTCALL,
         "column_map($module, reduce, values, weights, active, nI, nJ, nK, runs, map, empty, threads, /)\n--\n\n"
         "A map of the columns' values (bindings/_engine/Maps.cpp). Gives None."},
        {"region_totals", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&RegionTotals)),
         METH_FASTCALL, "region_totals($module, values, regions, out, threads, /)\n--\n\n"
         "The totals of values per region into out (bindings/_engine/Maps.cpp). Gives None."},
        {"group_totals", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&GroupTotals)),
         METH_FASTCALL, "group_totals($module, key, columns, out, threads, /)\n--\n\n"
         "The totals of each column per group into the rows of out (bindings/_engine/Maps.cpp). Gives None."},
        {"volume_totals", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&VolumeTotals)),
         METH_FASTCALL,
         "volume_totals($module, values, rounded, active, zones, regions, region_count, out, row_cells, threads, /)"
         "\n--\n\n"
         "The rows of a volumetrics table into out and row_cells (bindings/_engine/Volumetrics.cpp). Gives the "
         "first cell whose Rs x Rv is 1 or more, or -1."},
        {"number_counts", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&NumberCounts)),
         METH_FASTCALL, "number_counts($module, numbers, masked, out, threads, /)\n--\n\n"
         "The cells of each number into out (bindings/_engine/Volumetrics.cpp). Gives None."},
        {nullptr, nullptr, 0, nullptr}};
    if (PyModule_AddFunctions(m.ptr(), unlocked) < 0)
        throw nb::python_error();
    m.def("reduce_selection", &ReduceSelection, nb::arg("name"), nb::arg("values"), nb::arg("cells"), nb::arg("nI"),
          nb::arg("nJ"), nb::arg("result"));
    m.def("transmissibility_k", &TransmissibilityK, nb::arg("nnc1"), nb::arg("nnc2"), nb::arg("grid"),
          nb::arg("cells"));
    RegisterGeometry(m);
    RegisterSatfunc(m);
    RegisterEquil(m);
    m.attr("CALCULATIONS") = CalculationList();
    m.attr("RECORD_FIELDS") = RecordFieldNames();
    m.attr("CHUNK") = cellsPerChunk;
}
