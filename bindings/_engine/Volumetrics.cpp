// The rows of kavra.volumetrics' table over NumPy arrays, in blocks on threads
// with the interpreter lock released, by core/reductions/Volumetrics.h; and the
// count of each number of a numbering (the regions or zones a table has).
// The arguments are checked here, with the lock: no cell can fail.
#include <numpy/ndarraytypes.h> // the array struct only: no NumPy function table is used

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bindings/_engine/Calls.h"
#include "bindings/_engine/Engine.h"
#include "bindings/_engine/Held.h"
#include "core/reductions/RegionTotals.h"
#include "core/reductions/Volumetrics.h"
#include "core/utils/ParallelFor.h"

namespace nb = nanobind;

namespace kavra {
namespace engine {
namespace {

// What a call holds of its arguments' arrays while the lock is released.
struct HeldArrays
{
    std::vector<std::unique_ptr<HeldArray>> arrays;

    template <class T>
    T* Hold(PyObject* array)
    {
        arrays.emplace_back(new HeldArray(array));
        return reinterpret_cast<T*>(arrays.back()->Data());
    }
};

bool IsBoolPerCell(PyObject* array, std::uint64_t n)
{
    return IsArray(array) && Contiguous(array) && HasType(array, {NPY_BOOL}) && Length(array) == n;
}

bool IsIntArray(PyObject* array)
{
    return IsArray(array) && Contiguous(array) && Kind(array) == NPY_INT;
}

// ---------------------------------------------------------------- the rows of a table

struct VolumeJob : WritingJob<VolumeJob>
{
    HeldArrays held;
    volumes::Cells cells;
    double* out = nullptr;
    std::int64_t* rowCells = nullptr;
    std::uint64_t count = 0;
    unsigned threads = 1;
    std::vector<double> sums, compensations;     // per column, block and row
    std::vector<std::uint64_t> partialCells;     // per block and row
    std::vector<std::int64_t> firstBadRatios;    // per block
    std::vector<int> zoneTable, regionTable;     // the numberings' groups
    std::int64_t firstBadRatio = -1;

    PyObject* Result() override { return PyLong_FromLongLong(firstBadRatio); }
};

// Each block's cells once (volumes::SumBlock); the blocks' partial sums combined in block order, as
// region_totals combines them.
void RunVolumes(VolumeJob& job)
{
    const std::uint64_t blocks = totals::Blocks(job.cells.n, job.count), stride = blocks * job.count;
    ParallelChunks(blocks, 1, job.threads, [&](std::uint64_t first, std::uint64_t last) {
        for (std::uint64_t b = first; b < last; ++b)
            volumes::SumBlock(job.cells, job.count, b, &job.sums[b * job.count], &job.compensations[b * job.count],
                              stride, &job.partialCells[b * job.count], job.firstBadRatios[b]);
    });
    for (int j = 0; j < volumes::columns; ++j)
        totals::CombineBlocks(&job.sums[j * stride], &job.compensations[j * stride], blocks, job.count,
                              job.out + j * job.count);
    for (std::uint64_t r = 0; r < job.count; ++r) {
        std::uint64_t cells = 0;
        for (std::uint64_t b = 0; b < blocks; ++b)
            cells += job.partialCells[b * job.count + r];
        job.rowCells[r] = std::int64_t(cells);
    }
    for (std::int64_t bad : job.firstBadRatios)
        if (bad >= 0) {
            job.firstBadRatio = bad; // the blocks in cell order: the first is the lowest
            break;
        }
}

// Values of n cells or of one for all: a contiguous float32 or float64 array, or None where `optional`.
volumes::Values TakeValues(PyObject* array, std::uint64_t n, bool optional, HeldArrays& held, const char* words)
{
    volumes::Values values;
    if (optional && array == Py_None)
        return values;
    if (!IsArray(array) || !Contiguous(array) || !HasType(array, {NPY_FLOAT, NPY_DOUBLE}) ||
        (Length(array) != n && Length(array) != 1))
        Refuse(PyExc_ValueError, words);
    values.single = HasType(array, {NPY_FLOAT});
    values.one = Length(array) != n || n == 1;
    values.data = held.Hold<char>(array);
    return values;
}

// A numbering (numbers, masked, table, layer_cells) of n cells into `groups` groups.  Its table is
// copied into `table`: the groups it holds, checked here, cannot change while the lock is released.
volumes::Numbering TakeNumbering(PyObject* given, std::uint64_t n, std::uint64_t groups, HeldArrays& held,
                                 std::vector<int>& table, const char* words)
{
    if (!PyTuple_Check(given) || PyTuple_GET_SIZE(given) != 4)
        Refuse(PyExc_ValueError, words);
    PyObject *numbers = PyTuple_GET_ITEM(given, 0), *masked = PyTuple_GET_ITEM(given, 1),
             *groupsOf = PyTuple_GET_ITEM(given, 2);
    const long long layerCells = nb::cast<long long>(nb::handle(PyTuple_GET_ITEM(given, 3)));
    if (!IsIntArray(groupsOf) || (masked != Py_None && !IsBoolPerCell(masked, n)))
        Refuse(PyExc_ValueError, words);
    const int* first = reinterpret_cast<const int*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(groupsOf)));
    table.assign(first, first + Length(groupsOf));
    for (int group : table)
        if (group < -1 || (group >= 0 && std::uint64_t(group) >= groups))
            Refuse(PyExc_ValueError, words);
    volumes::Numbering numbering;
    numbering.tableSize = table.size();
    if (numbers == Py_None) { // by layer: every cell's layer in the table
        const bool fits = layerCells >= 1 && (n == 0 || (n - 1) / std::uint64_t(layerCells) < table.size());
        if (masked != Py_None || !fits)
            Refuse(PyExc_ValueError, words);
        numbering.layerCells = std::uint64_t(layerCells);
    } else {
        if (!IsIntArray(numbers) || Length(numbers) != n)
            Refuse(PyExc_ValueError, words);
        numbering.numbers = held.Hold<int>(numbers);
        if (masked != Py_None)
            numbering.masked = held.Hold<std::uint8_t>(masked);
    }
    numbering.table = table.data();
    return numbering;
}

// volume_totals(values, rounded, active, zones, regions, region_count, out, row_cells, threads):
// the rows of kavra.volumetrics' table (core/reductions/Volumetrics.h).  values: a tuple of sw,
// sg, oil, gas, water, rs, rv, porv, bulk, ntg, each contiguous float32 or float64 of one value per
// cell or one for all (rs, rv: or None); rounded: whether sw and sg are float32's; active: bool,
// one per cell (its length is the number of cells); zones, regions: numberings (numbers int32 per
// cell or None (zones by layer), masked bool per cell or None, table int32, layer_cells); out:
// float64, the nine value columns x the rows (zones x region_count x 3, C order); row_cells:
// int64, the cells of each row.  Each row holds the bits region_totals gives of its column, for
// any number of threads.  Gives the first cell whose Rs x Rv is 1 or more, or -1.
Job* PrepareVolumeTotals(PyObject* const* args, Py_ssize_t nargs)
{
    CheckArguments(nargs, 9, "volume_totals");
    PyObject *values = args[0], *active = args[2], *out = args[6], *rowCells = args[7];
    const char* words = "volume_totals takes a tuple of ten float32 or float64 arrays of the cells' length or one "
                        "value (rs, rv or None), a bool active flag per cell, two numberings (int32 numbers or "
                        "None, a bool mask or None, an int32 table of groups, cells per layer), a float64 out of "
                        "9 x rows and an int64 row_cells of rows, rows a multiple of 3 x region_count";
    auto job = std::make_unique<VolumeJob>();
    job->words = Words{"volume_totals", "", {}};
    const bool rounded = nb::cast<bool>(nb::handle(args[1]));
    const long long regionCount = nb::cast<long long>(nb::handle(args[5]));
    const unsigned threads = nb::cast<unsigned>(nb::handle(args[8]));
    const std::uint64_t n = IsArray(active) ? Length(active) : 0;
    if (!IsBoolPerCell(active, n) || !PyTuple_Check(values) || PyTuple_GET_SIZE(values) != 10 || !IsArray(out) ||
        !Contiguous(out) || !HasType(out, {NPY_DOUBLE}) || !Writable(out) || Length(out) % volumes::columns != 0 ||
        !IsArray(rowCells) || !Contiguous(rowCells) || Kind(rowCells) != NPY_LONGLONG || !Writable(rowCells))
        Refuse(PyExc_ValueError, words);
    const std::uint64_t count = Length(out) / volumes::columns;
    const std::uint64_t rowsPerZone = std::uint64_t(std::max(regionCount, 0LL)) * volumes::fluids;
    if (regionCount < 0 || Length(rowCells) != count || count >= (std::uint64_t(1) << 31) ||
        (count > 0 && (rowsPerZone == 0 || count % rowsPerZone != 0)))
        Refuse(PyExc_ValueError, words);
    volumes::Cells& cells = job->cells;
    cells.n = n;
    volumes::Values* taken[] = {&cells.sw, &cells.sg,  &cells.oil,  &cells.gas,  &cells.water,
                                &cells.rs, &cells.rv,  &cells.porv, &cells.bulk, &cells.ntg};
    for (Py_ssize_t j = 0; j < 10; ++j)
        *taken[j] = TakeValues(PyTuple_GET_ITEM(values, j), n, j == 5 || j == 6, job->held, words);
    cells.roundedSaturations = rounded;
    cells.active = job->held.Hold<std::uint8_t>(active);
    const std::uint64_t zoneCount = count == 0 ? 0 : count / rowsPerZone;
    cells.zones = TakeNumbering(args[3], n, zoneCount, job->held, job->zoneTable, words);
    cells.regions = TakeNumbering(args[4], n, std::uint64_t(regionCount), job->held, job->regionTable, words);
    cells.regionCount = std::uint64_t(regionCount);
    job->count = count;
    job->out = job->held.Hold<double>(out);
    job->rowCells = job->held.Hold<std::int64_t>(rowCells);
    std::fill(job->out, job->out + Length(out), 0.0);
    std::fill(job->rowCells, job->rowCells + count, std::int64_t(0));
    const std::uint64_t blocks = count == 0 ? 0 : totals::Blocks(n, count);
    job->sums.assign(volumes::columns * blocks * count, 0.0);
    job->compensations.assign(volumes::columns * blocks * count, 0.0);
    job->partialCells.assign(blocks * count, 0);
    job->firstBadRatios.assign(blocks, -1);
    job->threads = n >= cellsPerChunk ? UsefulThreads(std::max(1u, threads)) : 1;
    job->run = &RunVolumes;
    job->unlocked = n * volumes::columns >= cellsWithoutLock;
    return job.release();
}

// ---------------------------------------------------------------- the count of each number

struct CountJob : WritingJob<CountJob>
{
    HeldArrays held;
    const int* numbers = nullptr;
    const std::uint8_t* masked = nullptr;
    std::int64_t* out = nullptr;
    std::uint64_t n = 0, size = 0;
    unsigned threads = 1;
    std::vector<std::uint64_t> partial; // per block and number
};

void RunCounts(CountJob& job)
{
    if (job.size == 0)
        return;
    const std::uint64_t blockCells = totals::BlockCells(job.size), blocks = totals::Blocks(job.n, job.size);
    ParallelChunks(blocks, 1, job.threads, [&](std::uint64_t first, std::uint64_t last) {
        for (std::uint64_t b = first; b < last; ++b)
            volumes::CountNumbers(job.numbers, job.masked, job.size, b * blockCells,
                                  std::min(job.n, (b + 1) * blockCells), &job.partial[b * job.size]);
    });
    for (std::uint64_t x = 0; x < job.size; ++x) {
        std::uint64_t cells = 0;
        for (std::uint64_t b = 0; b < blocks; ++b)
            cells += job.partial[b * job.size + x];
        job.out[x] = std::int64_t(cells);
    }
}

// number_counts(numbers, masked, out, threads): the cells of each number 0..len(out)-1 of numbers
// (int32, one per cell) into out (int64), leaving out the cells whose masked flag (bool per cell,
// or None) is set; other numbers take no part.  Gives None.
Job* PrepareNumberCounts(PyObject* const* args, Py_ssize_t nargs)
{
    CheckArguments(nargs, 4, "number_counts");
    PyObject *numbers = args[0], *masked = args[1], *out = args[2];
    const unsigned threads = nb::cast<unsigned>(nb::handle(args[3]));
    if (!IsIntArray(numbers) || !IsArray(out) || !Contiguous(out) || Kind(out) != NPY_LONGLONG || !Writable(out) ||
        (masked != Py_None && !IsBoolPerCell(masked, Length(numbers))))
        Refuse(PyExc_ValueError, "number_counts takes int32 numbers, a bool mask of their length or None and an "
                                 "int64 out");
    auto job = std::make_unique<CountJob>();
    job->words = Words{"number_counts", "", {}};
    job->n = Length(numbers);
    job->size = Length(out);
    job->numbers = job->held.Hold<int>(numbers);
    if (masked != Py_None)
        job->masked = job->held.Hold<std::uint8_t>(masked);
    job->out = job->held.Hold<std::int64_t>(out);
    job->partial.assign(job->size == 0 ? 0 : totals::Blocks(job->n, job->size) * job->size, 0);
    job->threads = job->n >= cellsPerChunk ? UsefulThreads(std::max(1u, threads)) : 1;
    job->run = &RunCounts;
    job->unlocked = job->n >= cellsWithoutLock;
    return job.release();
}

} // namespace

PyObject* VolumeTotals(PyObject* self, PyObject* const* args, Py_ssize_t nargs)
{
    return Entry<&PrepareVolumeTotals>(self, args, nargs);
}

PyObject* NumberCounts(PyObject* self, PyObject* const* args, Py_ssize_t nargs)
{
    return Entry<&PrepareNumberCounts>(self, args, nargs);
}

} // namespace engine
} // namespace kavra
