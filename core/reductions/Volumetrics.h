#pragma once

// The volumetrics table's rows on plain memory, free of Python: each cell's
// quantities (oil saturation, hydrocarbon pore volume, the oil and gas in
// place split into liquid, vapour, free and dissolved with Rs and Rv, the
// fluid zone) and the row it adds to (zone x region x fluid), worked out and
// added up in one pass over the cells.
//
// Each quantity takes, in double, the steps that NumPy takes over such arrays
// (float32 inputs widened exactly, NumPy's clip: NaN kept), so that a table
// keeps the bits it had when kavra.volumetrics worked them out with NumPy.  The rows are added up as totals::SumBlockColumns adds
// (region_totals' blocks and compensated sums, cell order within a block), so
// every row holds the bits region_totals gives of its column, for any number
// of threads.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "core/reductions/RegionTotals.h"

namespace kavra {
namespace volumes {

// The value columns of a row, in the table's order.
enum Column { bulk, net, porv, hcpv, stoiip, giip, associatedGas, associatedOil, wiip, columns };

// The fluid zones, the last part of a row's key: (zone x regions + region) x 3 + fluid.
enum Fluid { oilZone = 1, gasZone = 2, waterZone = 3 };
constexpr std::uint64_t fluids = 3;

// Values of the cells: one per cell, or one for every cell; float (single) or
// double.  No data: not given (Rs of dead oil, Rv of dry gas).
struct Values
{
    const void* data = nullptr;
    bool single = false;
    bool one = false;

    bool Given() const { return data != nullptr; }

    // Cells [begin, begin + size) widened into out.
    void Widen(std::uint64_t begin, std::uint64_t size, double* out) const
    {
        if (one) {
            std::fill(out, out + size, single ? double(*static_cast<const float*>(data))
                                              : *static_cast<const double*>(data));
        } else if (single) {
            const float* in = static_cast<const float*>(data) + begin;
            for (std::uint64_t k = 0; k < size; ++k)
                out[k] = double(in[k]);
        } else {
            const double* in = static_cast<const double*>(data) + begin;
            std::copy(in, in + size, out);
        }
    }
};

// The group (a zone or a region, from 0) of each cell: numbers per cell (int),
// number x in group table[x] for 0 <= x < tableSize (table[x] of -1, or a number
// outside, in none), a cell whose `masked` flag is set in none; without
// numbers, cell c is in group table[c / layerCells] (zones by layer).
struct Numbering
{
    const int* numbers = nullptr;
    const std::uint8_t* masked = nullptr;
    const int* table = nullptr;
    std::uint64_t tableSize = 0;
    std::uint64_t layerCells = 0;

    // The groups of cells [begin, begin + size) into out.
    void Groups(std::uint64_t begin, std::uint64_t size, int* out) const
    {
        if (numbers == nullptr) { // a layer's cells one after the other: one division a tile
            std::uint64_t layer = begin / layerCells, next = (layer + 1) * layerCells;
            for (std::uint64_t k = 0; k < size; ++k) {
                if (begin + k == next) {
                    ++layer;
                    next += layerCells;
                }
                out[k] = table[layer];
            }
            return;
        }
        for (std::uint64_t k = 0, c = begin; k < size; ++k, ++c) {
            const int x = numbers[c];
            const bool none = (masked != nullptr && masked[c]) || x < 0 || std::uint64_t(x) >= tableSize;
            out[k] = none ? -1 : table[x];
        }
    }
};

// What the cells hold, each as kavra.volumetrics takes it.
struct Cells
{
    std::uint64_t n = 0;
    Values sw, sg;        // saturations
    Values oil, gas, water; // in place at surface conditions (oil and gas: liquid and vapour together)
    Values rs, rv;        // the ratios that split them (either may be left out)
    Values porv, bulk, ntg;
    bool roundedSaturations = false; // Sw and Sg of float32: an So within 2^-23 of 0 is 0
    const std::uint8_t* active = nullptr; // nullptr: every cell
    Numbering zones, regions;
    std::uint64_t regionCount = 0; // the regions of a row key
};

// NumPy's maximum, minimum and clip of floats: a NaN first argument is kept, a NaN bound wins.
inline double NumpyMax(double a, double b) { return std::isnan(a) ? a : (a > b ? a : b); }
inline double NumpyMin(double a, double b) { return std::isnan(a) ? a : (a < b ? a : b); }
inline double Clip(double x, double low, double high) { return NumpyMin(NumpyMax(x, low), high); }

// Cells per tile: a tile's inputs and columns (10 kB) stay in the first level of the cache.  On
// the bench's machine 64 cells take 14 % less time a cell than 256 (bench/README.md, "Volumetrics").
constexpr std::uint64_t tileCells = 64;

// A tile of cells [begin, begin + size): its value columns at column[j][k] and
// its fluid zones (Fluid) at key[k].  The first cell whose Rs x Rv is 1 or
// more (where both are given) into firstBadRatio, where that is still -1.
inline void TileColumns(const Cells& cells, std::uint64_t begin, std::uint64_t size,
                        double (*column)[tileCells], int* key, std::int64_t& firstBadRatio)
{
    double sw[tileCells], sg[tileCells], oil[tileCells], gas[tileCells], rs[tileCells], rv[tileCells];
    cells.sw.Widen(begin, size, sw);
    cells.sg.Widen(begin, size, sg);
    cells.oil.Widen(begin, size, oil);
    cells.gas.Widen(begin, size, gas);
    cells.water.Widen(begin, size, column[wiip]);
    cells.porv.Widen(begin, size, column[porv]);
    cells.bulk.Widen(begin, size, column[bulk]);
    cells.ntg.Widen(begin, size, column[net]);
    const bool withRs = cells.rs.Given(), withRv = cells.rv.Given();
    if (withRs)
        cells.rs.Widen(begin, size, rs);
    if (withRv)
        cells.rv.Widen(begin, size, rv);
    // loops of one step each, over the tile's cells in double: each runs two cells an instruction
    double so[tileCells];
    for (std::uint64_t k = 0; k < size; ++k)
        so[k] = (1.0 - sw[k]) - sg[k];
    if (cells.roundedSaturations) {
        const double spacing = 1.0 / 8388608.0; // 2^-23, float32's spacing at 1
        for (std::uint64_t k = 0; k < size; ++k)
            so[k] = std::fabs(so[k]) < spacing ? 0.0 : so[k];
    }
    for (std::uint64_t k = 0; k < size; ++k)
        column[hcpv][k] = column[porv][k] * Clip(Clip(so[k], 0.0, 1.0) + Clip(sg[k], 0.0, 1.0), 0.0, 1.0);
    for (std::uint64_t k = 0; k < size; ++k)
        column[net][k] = column[bulk][k] * column[net][k];
    // oil = L + F Rv and gas = F + L Rs, solved for the liquid L and the free gas F
    double* liquid = column[stoiip];
    double* free = column[giip];
    if (withRs && withRv) {
        double det[tileCells];
        for (std::uint64_t k = 0; k < size; ++k)
            det[k] = 1.0 - rs[k] * rv[k];
        for (std::uint64_t k = 0; k < size && firstBadRatio < 0; ++k)
            if (det[k] <= 0.0)
                firstBadRatio = std::int64_t(begin + k);
        for (std::uint64_t k = 0; k < size; ++k)
            liquid[k] = Clip((oil[k] - gas[k] * rv[k]) / det[k], 0.0, oil[k]);
        for (std::uint64_t k = 0; k < size; ++k)
            free[k] = Clip((gas[k] - oil[k] * rs[k]) / det[k], 0.0, gas[k]);
    } else { // without Rs (or Rv) a total has no dissolved (vaporised) part
        for (std::uint64_t k = 0; k < size; ++k)
            liquid[k] = withRv ? Clip(oil[k] - gas[k] * rv[k], 0.0, oil[k]) : oil[k];
        for (std::uint64_t k = 0; k < size; ++k)
            free[k] = withRs ? Clip(gas[k] - oil[k] * rs[k], 0.0, gas[k]) : gas[k];
    }
    // no liquid without oil saturation, no free gas without gas saturation; a cell of one
    // phase holds the whole of the other's total in its own
    for (std::uint64_t k = 0; k < size; ++k) {
        const double l = so[k] > 0.0 ? liquid[k] : 0.0, f = sg[k] > 0.0 ? free[k] : 0.0;
        liquid[k] = f == 0.0 ? oil[k] : l;
        free[k] = l == 0.0 ? gas[k] : f;
    }
    for (std::uint64_t k = 0; k < size; ++k) {
        column[associatedGas][k] = gas[k] - free[k];
        column[associatedOil][k] = oil[k] - liquid[k];
    }
    for (std::uint64_t k = 0; k < size; ++k)
        key[k] = free[k] > 0.0 ? gasZone : (liquid[k] > 0.0 ? oilZone : waterZone);
}

// The row keys of a tile from its fluid zones (key[k] on entry): 0 for a cell
// that is inactive or in no zone or region.
inline void TileKeys(const Cells& cells, std::uint64_t begin, std::uint64_t size, int* key)
{
    int zone[tileCells], region[tileCells];
    cells.zones.Groups(begin, size, zone);
    cells.regions.Groups(begin, size, region);
    const int regionCount = int(cells.regionCount), fluidCount = int(fluids);
    for (std::uint64_t k = 0; k < size; ++k) {
        const bool takes = (cells.active == nullptr || cells.active[begin + k]) && zone[k] >= 0 && region[k] >= 0;
        key[k] = takes ? (zone[k] * regionCount + region[k]) * fluidCount + key[k] : 0;
    }
}

// Block `block` of the cells (totals::BlockCells(count) cells a block) into
// the partial sums of its rows 1..count: column j's sums and compensations
// at sums[j * stride + row - 1] and compensations[j * stride + row - 1]
// (zeroed), the number of cells of each row added to rowCells[row - 1], the
// first cell whose Rs x Rv is 1 or more into firstBadRatio (where it is -1).
// Row keys must stay within count: (zones x regionCount) x 3 <= count, and
// every group of a numbering below its count.  Each run of cells of one row
// is added up in registers, every column cell by cell.
inline void SumBlock(const Cells& cells, std::uint64_t count, std::uint64_t block, double* sums,
                     double* compensations, std::uint64_t stride, std::uint64_t* rowCells,
                     std::int64_t& firstBadRatio)
{
    const std::uint64_t blockCells = totals::BlockCells(count);
    const std::uint64_t begin = block * blockCells, end = std::min(cells.n, begin + blockCells);
    double column[columns][tileCells];
    int key[tileCells];
    for (std::uint64_t tile = begin; tile < end; tile += tileCells) {
        const std::uint64_t size = std::min(tileCells, end - tile);
        TileColumns(cells, tile, size, column, key, firstBadRatio);
        TileKeys(cells, tile, size, key);
        std::uint64_t k = 0;
        while (k < size) {
            const int row = key[k];
            std::uint64_t last = k + 1;
            while (last < size && key[last] == row)
                ++last;
            if (row >= 1) {
                const std::uint64_t at = std::uint64_t(row - 1);
                rowCells[at] += last - k;
                double sum[columns], compensation[columns];
                for (int j = 0; j < columns; ++j) {
                    sum[j] = sums[j * stride + at];
                    compensation[j] = compensations[j * stride + at];
                }
                for (std::uint64_t q = k; q < last; ++q)
                    for (int j = 0; j < columns; ++j)
                        totals::AddCompensated(sum[j], compensation[j], column[j][q]);
                for (int j = 0; j < columns; ++j) {
                    sums[j * stride + at] = sum[j];
                    compensations[j * stride + at] = compensation[j];
                }
            }
            k = last;
        }
    }
}

// The cells of each number 0..size-1 among cells [begin, end) of `numbers`
// (those whose `masked` flag is set, or nullptr: none, left out), added to
// counts; numbers outside take no part.
inline void CountNumbers(const int* numbers, const std::uint8_t* masked, std::uint64_t size, std::uint64_t begin,
                         std::uint64_t end, std::uint64_t* counts)
{
    for (std::uint64_t c = begin; c < end; ++c) {
        const int x = numbers[c];
        if ((masked == nullptr || !masked[c]) && x >= 0 && std::uint64_t(x) < size)
            ++counts[x];
    }
}

} // namespace volumes
} // namespace kavra
