// Column maps and totals per region (of one column or many) over NumPy arrays, in chunks on threads
// with the interpreter lock released, by core/reductions/ColumnMaps.h and
// core/reductions/RegionTotals.h.  Neither can fail on a cell: the arguments
// are checked here, with the lock.
#include <numpy/ndarraytypes.h> // the array struct only: no NumPy function table is used

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <nanobind/stl/string.h>

#include "bindings/_engine/Calls.h"
#include "bindings/_engine/Engine.h"
#include "bindings/_engine/Held.h"
#include "core/reductions/ColumnMaps.h"
#include "core/reductions/RegionTotals.h"
#include "core/utils/ParallelFor.h"

namespace nb = nanobind;

namespace kavra {
namespace engine {
namespace {

// ---------------------------------------------------------------- column maps

struct MapJob : WritingJob<MapJob>
{
    std::unique_ptr<HeldArray> values, weights, active, map, empty;
    std::int64_t nI = 0, nJ = 0, nK = 0;
    bool runs = false;
    maps::Reduce reduce = maps::Reduce::sum;
    unsigned threads = 1;
};

// The columns in chunks of at least cellsPerChunk cells, chunksPerThread for each thread in
// larger calls; each column is reduced whole by one thread, so the chunks never change a bit.
template <class T>
void RunMap(MapJob& job)
{
    const maps::Cells<T> cells{reinterpret_cast<const T*>(job.values->Data()),
                               job.weights ? reinterpret_cast<const T*>(job.weights->Data()) : nullptr,
                               job.active ? reinterpret_cast<const std::uint8_t*>(job.active->Data()) : nullptr,
                               job.nI, job.nJ, job.nK,
                               job.runs ? maps::Layout::runs : maps::Layout::layers};
    const std::uint64_t columns = std::uint64_t(job.nI * job.nJ);
    const std::uint64_t layers = std::uint64_t(std::max<std::int64_t>(job.nK, 1));
    const std::uint64_t chunk =
        std::max<std::uint64_t>({1, cellsPerChunk / layers, columns / (chunksPerThread * job.threads)});
    double* map = reinterpret_cast<double*>(job.map->Data());
    std::uint8_t* empty = reinterpret_cast<std::uint8_t*>(job.empty->Data());
    ParallelChunks(columns, chunk, job.threads, [&](std::uint64_t first, std::uint64_t last) {
        maps::MapColumns(cells, job.reduce, std::ptrdiff_t(first), std::ptrdiff_t(last), map, empty);
    });
}

// column_map(reduce, values, weights, active, nI, nJ, nK, runs, map, empty,
// threads): one value per column of a grid of nI x nJ x nK cells into map
// (float64, nJ x nI, I fastest), and whether the column took no cell into
// empty (bool, the same).  values contiguous float32 or float64 in the
// layers (I fastest) or runs (K fastest) layout; weights None or as values;
// active None or bool, one per cell.  reduce: "sum", "mean", "max" or "min".
// Gives None.
Job* PrepareColumnMap(PyObject* const* args, Py_ssize_t nargs)
{
    CheckArguments(nargs, 11, "column_map");
    auto job = std::make_unique<MapJob>();
    const std::string reduce = nb::cast<std::string>(nb::handle(args[0]));
    PyObject *values = args[1], *weights = args[2], *active = args[3], *map = args[8], *empty = args[9];
    job->nI = nb::cast<std::int64_t>(nb::handle(args[4]));
    job->nJ = nb::cast<std::int64_t>(nb::handle(args[5]));
    job->nK = nb::cast<std::int64_t>(nb::handle(args[6]));
    job->runs = nb::cast<bool>(nb::handle(args[7]));
    const unsigned threads = nb::cast<unsigned>(nb::handle(args[10]));
    const maps::Reduce reduces[] = {maps::Reduce::sum, maps::Reduce::mean, maps::Reduce::max, maps::Reduce::min};
    const char* names[] = {"sum", "mean", "max", "min"};
    const auto found = std::find(std::begin(names), std::end(names), reduce);
    if (found == std::end(names))
        Refuse(PyExc_ValueError, "column_map: no reduction " + reduce);
    job->reduce = reduces[found - std::begin(names)];
    const std::int64_t most = std::int64_t(1) << 20; // any grid of kavra's has fewer than 2^16 cells a side
    const bool fits = job->nI >= 0 && job->nJ >= 0 && job->nK >= 0 && job->nI < most && job->nJ < most &&
                      job->nK < most && IsArray(values) && IsArray(map) && IsArray(empty) && Contiguous(values) &&
                      Contiguous(map) && Contiguous(empty) && HasType(values, {NPY_FLOAT, NPY_DOUBLE}) &&
                      HasType(map, {NPY_DOUBLE}) && HasType(empty, {NPY_BOOL}) && Writable(map) && Writable(empty);
    const std::uint64_t n = std::uint64_t(job->nI) * std::uint64_t(job->nJ) * std::uint64_t(job->nK);
    const std::uint64_t columns = std::uint64_t(job->nI) * std::uint64_t(job->nJ);
    if (!fits || Length(values) != n || Length(map) != columns || Length(empty) != columns)
        Refuse(PyExc_ValueError, "column_map takes contiguous float32 or float64 values of nI x nJ x nK cells, a "
                                 "float64 map and a bool flag of nI x nJ columns");
    if (weights != Py_None && (!IsArray(weights) || !Contiguous(weights) || Kind(weights) != Kind(values) ||
                               Length(weights) != n))
        Refuse(PyExc_ValueError, "column_map takes contiguous weights of the values' element type and length");
    if (active != Py_None &&
        (!IsArray(active) || !Contiguous(active) || !HasType(active, {NPY_BOOL}) || Length(active) != n))
        Refuse(PyExc_ValueError, "column_map takes a contiguous bool active flag per cell");
    job->words = Words{"column_map", "", {}};
    job->threads = n >= cellsPerChunk ? UsefulThreads(std::max(1u, threads)) : 1;
    job->run = HasType(values, {NPY_FLOAT}) ? &RunMap<float> : &RunMap<double>;
    job->values.reset(new HeldArray(values));
    if (weights != Py_None)
        job->weights.reset(new HeldArray(weights));
    if (active != Py_None)
        job->active.reset(new HeldArray(active));
    job->map.reset(new HeldArray(map));
    job->empty.reset(new HeldArray(empty));
    job->unlocked = n >= cellsWithoutLock;
    return job.release();
}

// ---------------------------------------------------------------- totals per region

struct TotalsJob : WritingJob<TotalsJob>
{
    std::unique_ptr<HeldArray> values, regions, out;
    std::uint64_t n = 0, count = 0;
    bool oneRegion = false;
    unsigned threads = 1;
    std::vector<double> sums, compensations; // per block and region
};

template <class T>
void RunTotals(TotalsJob& job)
{
    const T* values = reinterpret_cast<const T*>(job.values->Data());
    const int* regions = reinterpret_cast<const int*>(job.regions->Data());
    const std::uint64_t blocks = totals::Blocks(job.n, job.count);
    ParallelChunks(blocks, 1, job.threads, [&](std::uint64_t first, std::uint64_t last) {
        for (std::uint64_t b = first; b < last; ++b)
            totals::SumBlock(values, regions, job.oneRegion, job.n, job.count, b, &job.sums[b * job.count],
                             &job.compensations[b * job.count]);
    });
    totals::CombineBlocks(job.sums.data(), job.compensations.data(), blocks, job.count,
                          reinterpret_cast<double*>(job.out->Data()));
}

// region_totals(values, regions, out, threads): the total of the values
// (contiguous float32 or float64) of the cells of each region 1..len(out)
// into out (float64), the region of each cell in regions (int32, one per
// cell, or one for every cell); other region numbers take no part.  The same
// bits for any number of threads.  Gives None.
Job* PrepareRegionTotals(PyObject* const* args, Py_ssize_t nargs)
{
    CheckArguments(nargs, 4, "region_totals");
    PyObject *values = args[0], *regions = args[1], *out = args[2];
    const unsigned threads = nb::cast<unsigned>(nb::handle(args[3]));
    if (!IsArray(values) || !IsArray(regions) || !IsArray(out) || !Contiguous(values) || !Contiguous(regions) ||
        !Contiguous(out) || !HasType(values, {NPY_FLOAT, NPY_DOUBLE}) || Kind(regions) != NPY_INT ||
        !HasType(out, {NPY_DOUBLE}) || !Writable(out) ||
        (Length(regions) != Length(values) && Length(regions) != 1))
        Refuse(PyExc_ValueError, "region_totals takes contiguous float32 or float64 values, int32 regions of "
                                 "their length (or one) and a float64 out");
    auto job = std::make_unique<TotalsJob>();
    job->words = Words{"region_totals", "", {}};
    job->n = Length(values);
    job->count = Length(out);
    job->oneRegion = Length(regions) == 1 && job->n != 1;
    const std::uint64_t partials = totals::Blocks(job->n, job->count) * job->count;
    job->sums.assign(partials, 0.0);
    job->compensations.assign(partials, 0.0);
    job->threads = job->n >= cellsPerChunk ? UsefulThreads(std::max(1u, threads)) : 1;
    job->run = HasType(values, {NPY_FLOAT}) ? &RunTotals<float> : &RunTotals<double>;
    job->values.reset(new HeldArray(values));
    job->regions.reset(new HeldArray(regions));
    job->out.reset(new HeldArray(out));
    job->unlocked = job->n >= cellsWithoutLock;
    return job.release();
}

// ---------------------------------------------------------------- totals of many columns per group

struct GroupTotalsJob : WritingJob<GroupTotalsJob>
{
    std::unique_ptr<HeldArray> key, out;
    std::vector<std::unique_ptr<HeldArray>> columns;
    std::vector<bool> single; // whether each column is float32
    std::uint64_t n = 0, count = 0;
    unsigned threads = 1;
    std::vector<double> sums, compensations; // per column, block and group
};

// Each block's cells once, every column added cell by cell (totals::SumBlockColumns): each
// column's partial sums are region_totals' own, so each column's totals are too.  Column j's
// partial sums of block b are at j * stride + b * count.
void RunGroupTotals(GroupTotalsJob& job)
{
    const int* key = reinterpret_cast<const int*>(job.key->Data());
    const std::uint64_t blocks = totals::Blocks(job.n, job.count), stride = blocks * job.count;
    std::vector<totals::Column> columns;
    for (std::size_t j = 0; j < job.columns.size(); ++j)
        columns.push_back({job.columns[j]->Data(), job.single[j]});
    ParallelChunks(blocks, 1, job.threads, [&](std::uint64_t first, std::uint64_t last) {
        for (std::uint64_t b = first; b < last; ++b)
            totals::SumBlockColumns(columns.data(), columns.size(), key, job.n, job.count, b,
                                    &job.sums[b * job.count], &job.compensations[b * job.count], stride);
    });
    double* out = reinterpret_cast<double*>(job.out->Data());
    for (std::size_t j = 0; j < job.columns.size(); ++j)
        totals::CombineBlocks(&job.sums[j * stride], &job.compensations[j * stride], blocks, job.count,
                              out + j * job.count);
}

// group_totals(key, columns, out, threads): for each column of the tuple columns
// (contiguous float32 or float64, one value per cell), the total of the values
// of the cells of each group 1..count into its row of out (float64, columns x
// count, C order), the group of each cell in key (int32, one per cell); other
// numbers take no part.  Each row holds the bits region_totals gives of its
// column, for any number of threads.  Gives None.
Job* PrepareGroupTotals(PyObject* const* args, Py_ssize_t nargs)
{
    CheckArguments(nargs, 4, "group_totals");
    PyObject *key = args[0], *columns = args[1], *out = args[2];
    const unsigned threads = nb::cast<unsigned>(nb::handle(args[3]));
    const char* words = "group_totals takes int32 keys, a tuple of contiguous float32 or float64 columns of "
                        "their length and a float64 out of columns x count values";
    if (!IsArray(key) || !Contiguous(key) || Kind(key) != NPY_INT || !PyTuple_Check(columns) || !IsArray(out) ||
        !Contiguous(out) || !HasType(out, {NPY_DOUBLE}) || !Writable(out))
        Refuse(PyExc_ValueError, words);
    auto job = std::make_unique<GroupTotalsJob>();
    job->words = Words{"group_totals", "", {}};
    job->n = Length(key);
    const std::uint64_t width = std::uint64_t(PyTuple_GET_SIZE(columns));
    for (std::uint64_t j = 0; j < width; ++j) {
        PyObject* column = PyTuple_GET_ITEM(columns, Py_ssize_t(j));
        if (!IsArray(column) || !Contiguous(column) || !HasType(column, {NPY_FLOAT, NPY_DOUBLE}) ||
            Length(column) != job->n)
            Refuse(PyExc_ValueError, words);
        job->single.push_back(HasType(column, {NPY_FLOAT}));
        job->columns.emplace_back(new HeldArray(column));
    }
    if (width == 0 ? Length(out) != 0 : Length(out) % width != 0)
        Refuse(PyExc_ValueError, words);
    job->count = width == 0 ? 0 : Length(out) / width;
    const std::uint64_t partials = width * totals::Blocks(job->n, job->count) * job->count;
    job->sums.assign(partials, 0.0);
    job->compensations.assign(partials, 0.0);
    job->threads = job->n >= cellsPerChunk ? UsefulThreads(std::max(1u, threads)) : 1;
    job->run = &RunGroupTotals;
    job->key.reset(new HeldArray(key));
    job->out.reset(new HeldArray(out));
    job->unlocked = job->n * std::max<std::uint64_t>(width, 1) >= cellsWithoutLock;
    return job.release();
}

} // namespace

PyObject* ColumnMap(PyObject* self, PyObject* const* args, Py_ssize_t nargs)
{
    return Entry<&PrepareColumnMap>(self, args, nargs);
}

PyObject* RegionTotals(PyObject* self, PyObject* const* args, Py_ssize_t nargs)
{
    return Entry<&PrepareRegionTotals>(self, args, nargs);
}

PyObject* GroupTotals(PyObject* self, PyObject* const* args, Py_ssize_t nargs)
{
    return Entry<&PrepareGroupTotals>(self, args, nargs);
}

} // namespace engine
} // namespace kavra
