#pragma once

// Column maps on plain memory, free of Python: one value per column (all
// cells with one I and one J) of a grid of nI x nJ x nK cells, written to a
// map of nJ x nI values (I fastest), with a flag per column that took no
// cell.  The arithmetic is in double whatever the element type of the
// values and weights (float or double, widened exactly), and every column
// takes its cells in ascending K, so the result does not depend on the
// layout, nor on how the columns are cut into parts.
//
// Two layouts of the cells:
// * Layers: cell (i, j, k) at i + nI * (j + nJ * k), I fastest (NumPy's
//   (nK, nJ, nI)); column i + nI * j is a stride of nI * nJ through the layers.
// * Runs: cell (i, j, k) at k + nK * (j + nJ * i), K fastest (NumPy's
//   (nI, nJ, nK)); column j + nJ * i is a contiguous run of nK cells.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace kavra {
namespace maps {

enum class Reduce
{
    sum,  // the sum, or with weights the sum of weight x value
    mean, // the mean, or with weights sum(weight x value) / sum(weight)
    max,  // the largest value; NaN if any value is NaN
    min   // the smallest value; NaN if any value is NaN
};

enum class Layout
{
    layers, // I fastest
    runs    // K fastest
};

// The cells of a grid and what goes with them: values (float or double), weights of the
// same type or none, an activity flag per cell (nonzero: takes part) or none.
template <class T>
struct Cells
{
    const T* values;
    const T* weights;            // nullptr: none
    const std::uint8_t* active; // nullptr: every cell
    std::ptrdiff_t nI, nJ, nK;
    Layout layout;
};

namespace detail {

template <Reduce R>
constexpr double Initial()
{
    if constexpr (R == Reduce::max)
        return -std::numeric_limits<double>::infinity();
    else if constexpr (R == Reduce::min)
        return std::numeric_limits<double>::infinity();
    else
        return 0.0;
}

// A column's running state, one array per part: `total` (the sum, the weighted
// sum, or the extreme so far), `weight` (the sum of the weights; weighted only)
// and `taken` (the cells taken; where cells are left out only).  The
// comparisons keep a NaN once it is in, and let one in.
template <Reduce R, bool Weighted, bool Masked>
inline void Take(double* total, double* weight, std::ptrdiff_t* taken, std::ptrdiff_t at, double v, double w)
{
    if constexpr (R == Reduce::max) {
        total[at] = (v > total[at] || v != v) ? v : total[at];
    } else if constexpr (R == Reduce::min) {
        total[at] = (v < total[at] || v != v) ? v : total[at];
    } else if constexpr (Weighted) {
        total[at] += w * v;
        weight[at] += w;
    } else {
        total[at] += v;
    }
    if constexpr (Masked)
        ++taken[at];
}

// Columns c..c+G-1 of the runs layout (K fastest) into the running arrays at
// `at`..`at`+G-1, each in ascending K, the state held locally.
template <Reduce R, bool Weighted, bool Masked, int G, class T>
void AccumulateRuns(const Cells<T>& cells, std::ptrdiff_t c, std::ptrdiff_t at, double* total, double* weight,
                    std::ptrdiff_t* taken)
{
    double t[G], w[G];
    std::ptrdiff_t n[G];
    for (int q = 0; q < G; ++q) {
        t[q] = total[at + q];
        w[q] = Weighted ? weight[at + q] : 0.0;
        n[q] = 0;
    }
    const std::ptrdiff_t nK = cells.nK;
    for (std::ptrdiff_t k = 0; k < nK; ++k) {
        for (int q = 0; q < G; ++q) {
            const std::ptrdiff_t cell = (c + q) * nK + k;
            if (Masked && !cells.active[cell])
                continue;
            Take<R, Weighted, Masked>(t, w, n, q, double(cells.values[cell]),
                                      Weighted ? double(cells.weights[cell]) : 1.0);
        }
    }
    for (int q = 0; q < G; ++q) {
        total[at + q] = t[q];
        if (Weighted)
            weight[at + q] = w[q];
        if (Masked)
            taken[at + q] = n[q];
    }
}

// Columns first..last-1 of `cells` into the running arrays (one element per column,
// in that order, at the initial state), each in ascending K.  In the layers layout
// the column number is i + nI * j, in the runs layout j + nJ * i.
template <Reduce R, bool Weighted, bool Masked, class T>
void Accumulate(const Cells<T>& cells, std::ptrdiff_t first, std::ptrdiff_t last, double* total, double* weight,
                std::ptrdiff_t* taken)
{
    const std::ptrdiff_t nK = cells.nK;
    const T* const values = cells.values;
    const T* const weights = cells.weights;
    const std::uint8_t* const active = cells.active;
    if (cells.layout == Layout::layers) {
        const std::ptrdiff_t columns = cells.nI * cells.nJ;
        const std::ptrdiff_t width = last - first;
        for (std::ptrdiff_t k = 0; k < nK; ++k) {
            const std::ptrdiff_t base = k * columns + first;
            for (std::ptrdiff_t c = 0; c < width; ++c) {
                if (Masked && !active[base + c])
                    continue;
                Take<R, Weighted, Masked>(total, weight, taken, c, double(values[base + c]),
                                          Weighted ? double(weights[base + c]) : 1.0);
            }
        }
    } else {
        // Four columns at a time: four chains of additions that do not wait on each other.
        std::ptrdiff_t c = first;
        for (; c + 4 <= last; c += 4)
            AccumulateRuns<R, Weighted, Masked, 4>(cells, c, c - first, total, weight, taken);
        for (; c < last; ++c)
            AccumulateRuns<R, Weighted, Masked, 1>(cells, c, c - first, total, weight, taken);
    }
}

template <Reduce R, class T>
void MapPart(const Cells<T>& cells, std::ptrdiff_t first, std::ptrdiff_t last, double* map, std::uint8_t* empty)
{
    const std::size_t width = std::size_t(last - first);
    const bool weighted = cells.weights != nullptr && (R == Reduce::sum || R == Reduce::mean);
    const bool masked = cells.active != nullptr;
    std::vector<double> total(width, Initial<R>()), weight(weighted ? width : 0);
    std::vector<std::ptrdiff_t> taken(masked ? width : 0);
    if (weighted)
        masked ? Accumulate<R, true, true>(cells, first, last, total.data(), weight.data(), taken.data())
               : Accumulate<R, true, false>(cells, first, last, total.data(), weight.data(), taken.data());
    else
        masked ? Accumulate<R, false, true>(cells, first, last, total.data(), weight.data(), taken.data())
               : Accumulate<R, false, false>(cells, first, last, total.data(), weight.data(), taken.data());
    for (std::size_t c = 0; c < width; ++c) {
        const std::ptrdiff_t column = first + std::ptrdiff_t(c);
        const std::ptrdiff_t at =
            cells.layout == Layout::layers ? column : column / cells.nJ + cells.nI * (column % cells.nJ);
        const std::ptrdiff_t count = masked ? taken[c] : cells.nK;
        double value = 0.0;
        if (count > 0) {
            value = total[c];
            if constexpr (R == Reduce::mean) // NaN where the weights add up to 0 (x / 0 is an infinity)
                value = !weighted ? total[c] / double(count)
                        : weight[c] == 0.0 ? std::numeric_limits<double>::quiet_NaN() : total[c] / weight[c];
        }
        map[at] = value;
        empty[at] = count > 0 ? 0 : 1;
    }
}

} // namespace detail

// The columns first..last-1 (numbered as in the layout: i + nI * j for layers,
// j + nJ * i for runs) reduced, each to map[i + nI * j]; empty[i + nI * j] is 1
// where the column took no cell (its map value is then 0), else 0.  Parts of the
// columns can run side by side: each writes only its own columns.
template <class T>
void MapColumns(const Cells<T>& cells, Reduce reduce, std::ptrdiff_t first, std::ptrdiff_t last, double* map,
                std::uint8_t* empty)
{
    if (first >= last)
        return;
    switch (reduce) {
    case Reduce::sum:
        return detail::MapPart<Reduce::sum>(cells, first, last, map, empty);
    case Reduce::mean:
        return detail::MapPart<Reduce::mean>(cells, first, last, map, empty);
    case Reduce::max:
        return detail::MapPart<Reduce::max>(cells, first, last, map, empty);
    case Reduce::min:
        return detail::MapPart<Reduce::min>(cells, first, last, map, empty);
    }
}

} // namespace maps
} // namespace kavra
