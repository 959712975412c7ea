#pragma once

// Totals per region on plain memory, free of Python: the sum of the values of
// the cells of each region (numbered from 1; cells numbered outside 1..count
// take no part), in double whatever the element type (float or double,
// widened exactly).
//
// Compensated (Neumaier's variant of Kahan's) summation in blocks of cells
// whose bounds depend only on the number of cells and of regions: each block
// gives each region a sum and its compensation, and the blocks are combined
// in block order, compensated again.  The blocks may be summed side by side in
// any order, on any number of threads: the totals keep the same bits.
#include <algorithm>
#include <cmath>
#include <cstdint>

namespace kavra {
namespace totals {

// Cells per block: at least 2^16, and at least four per region, so that the
// blocks' partial sums take at most about four times less memory than the cells.
inline std::uint64_t BlockCells(std::uint64_t count)
{
    return std::max<std::uint64_t>(std::uint64_t(1) << 16, 4 * count);
}

inline std::uint64_t Blocks(std::uint64_t n, std::uint64_t count)
{
    const std::uint64_t block = BlockCells(count);
    return (n + block - 1) / block;
}

// Adds v to the compensated sum (sum, compensation).
inline void AddCompensated(double& sum, double& compensation, double v)
{
    const double t = sum + v;
    const bool larger = std::fabs(sum) >= std::fabs(v);
    const double big = larger ? sum : v, small = larger ? v : sum; // selected, not branched
    compensation += (big - t) + small;
    sum = t;
}

// Block `block` of n cells: values[c] of cell c in region regions[c] (or regions[0]
// for every cell where oneRegion), into sums[r - 1] and compensations[r - 1] (count
// of each, zeroed), for regions r in 1..count.
template <class T>
void SumBlock(const T* values, const int* regions, bool oneRegion, std::uint64_t n, std::uint64_t count,
              std::uint64_t block, double* sums, double* compensations)
{
    const std::uint64_t size = BlockCells(count);
    const std::uint64_t begin = block * size, end = std::min(n, begin + size);
    for (std::uint64_t c = begin; c < end; ++c) {
        const int r = regions[oneRegion ? 0 : c];
        if (r < 1 || std::uint64_t(r) > count)
            continue;
        AddCompensated(sums[r - 1], compensations[r - 1], double(values[c]));
    }
}

// A column of values for SumBlockColumns: float (single) or double.
struct Column
{
    const void* values;
    bool single;
};

// Block `block` of n cells for `width` columns at once, cell by cell: column j's
// sums and compensations at sums[j * stride] and compensations[j * stride] (count
// of each, zeroed), regions as SumBlock's.  Each column's sums take SumBlock's
// steps in SumBlock's order, so they hold its bits.  Each run of cells of one
// region is added up column by column in registers, each region's key read once.
inline void SumBlockColumns(const Column* columns, std::uint64_t width, const int* regions, std::uint64_t n,
                            std::uint64_t count, std::uint64_t block, double* sums, double* compensations,
                            std::uint64_t stride)
{
    const std::uint64_t size = BlockCells(count);
    const std::uint64_t begin = block * size, end = std::min(n, begin + size);
    std::uint64_t c = begin;
    while (c < end) {
        const int r = regions[c];
        std::uint64_t last = c + 1;
        while (last < end && regions[last] == r)
            ++last;
        if (r >= 1 && std::uint64_t(r) <= count) {
            for (std::uint64_t j = 0; j < width; ++j) {
                double sum = sums[j * stride + r - 1], compensation = compensations[j * stride + r - 1];
                if (columns[j].single) {
                    const float* values = static_cast<const float*>(columns[j].values);
                    for (std::uint64_t k = c; k < last; ++k)
                        AddCompensated(sum, compensation, double(values[k]));
                } else {
                    const double* values = static_cast<const double*>(columns[j].values);
                    for (std::uint64_t k = c; k < last; ++k)
                        AddCompensated(sum, compensation, values[k]);
                }
                sums[j * stride + r - 1] = sum;
                compensations[j * stride + r - 1] = compensation;
            }
        }
        c = last;
    }
}

// The totals of `blocks` blocks of partial sums (block b's at sums[b * count] and
// compensations[b * count]), combined in block order, into totals[0..count).
// A total that is not finite is the plain sum (an infinity stays one; NaN is NaN).
inline void CombineBlocks(const double* sums, const double* compensations, std::uint64_t blocks,
                          std::uint64_t count, double* totals)
{
    for (std::uint64_t r = 0; r < count; ++r) {
        double sum = 0.0, compensation = 0.0;
        for (std::uint64_t b = 0; b < blocks; ++b) {
            AddCompensated(sum, compensation, sums[b * count + r]);
            compensation += compensations[b * count + r];
        }
        totals[r] = std::isfinite(sum) ? sum + compensation : sum;
    }
}

} // namespace totals
} // namespace kavra
