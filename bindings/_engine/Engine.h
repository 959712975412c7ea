#pragma once

// The entries of kavra._engine, one file each: the cell calculations of the
// list (Cells.cpp), the K reductions (Reductions.cpp); module.cpp registers
// them.
#include <Python.h>

#include <cstdint>
#include <string>

#include <nanobind/nanobind.h>

namespace kavra {
namespace engine {

// The least cells of a chunk of a call.
extern const std::uint64_t cellsPerChunk;
// Chunks per thread of a larger call.
extern const std::uint64_t chunksPerThread;
// Below this many cells a call keeps the interpreter lock: releasing it costs more.
extern const std::uint64_t cellsWithoutLock;

// calculate(name, tables, regions, inputs, out, words, threads), a Python
// function of the fast call convention (see Cells.cpp).
PyObject* Calculate(PyObject* self, PyObject* const* args, Py_ssize_t nargs);

// {name: (region list or None, inputs, float inputs)} of the list.
nanobind::dict CalculationList();

// reduce_grid(name, values, result, columns, threads) (see Reductions.cpp).
PyObject* ReduceGrid(PyObject* self, PyObject* const* args, Py_ssize_t nargs);

// column_map(reduce, values, weights, active, nI, nJ, nK, runs, map, empty, threads)
// region_totals(values, regions, out, threads) and group_totals(key, columns, out, threads) (see Maps.cpp).
PyObject* ColumnMap(PyObject* self, PyObject* const* args, Py_ssize_t nargs);
PyObject* RegionTotals(PyObject* self, PyObject* const* args, Py_ssize_t nargs);
PyObject* GroupTotals(PyObject* self, PyObject* const* args, Py_ssize_t nargs);

// volume_totals(values, rounded, active, zones, regions, region_count, out, row_cells, threads) and
// number_counts(numbers, masked, out, threads) (see Volumetrics.cpp).
PyObject* VolumeTotals(PyObject* self, PyObject* const* args, Py_ssize_t nargs);
PyObject* NumberCounts(PyObject* self, PyObject* const* args, Py_ssize_t nargs);

// reduce_selection(name, values, cells, nI, nJ, result) (see Reductions.cpp).
void ReduceSelection(const std::string& name, nanobind::object values, nanobind::object cells, std::int64_t nI,
                     std::int64_t nJ, nanobind::object result);

} // namespace engine
} // namespace kavra
