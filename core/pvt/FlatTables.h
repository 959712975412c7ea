#pragma once

// Tables flattened once per call into contiguous doubles, so that the cell
// loop reads no shared pointers.  A flattened line gives bit for bit what
// the interpolators give on the table itself: the row it finds is the row
// that the row search finds, its bracket is the one of the bracket rule,
// and its expressions are those of the interpolators, with the part of each
// expression that does not depend on the cell (the slope, or the two
// differences of the fraction form) evaluated ahead with the very operands
// the cell would use.  A table in which some value that a lookup could read
// is missing (an unset scalar, an empty under_sat list) is not flattened:
// its cells take the interpolators on the table itself, which report the
// problem at the cell that reaches it.
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "core/pvt/Interpolation.h"

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

namespace kavra {

// The row search on keys that ascend (each key at most the next, no NaN).
// There the first key not below x is the number of keys below x, which
// this search finds in a fixed number of halvings, without a branch that
// depends on x.  A NaN x is below no key and gives 0, as in RowSearch.
// n is at least 1.
inline std::size_t AscendingRowSearch(const double* keys, std::size_t n, double x)
{
    const double* base = keys;
    while (n > 1) {
        const std::size_t half = n / 2;
        base += base[half] < x ? half : 0;
        n -= half;
    }
    return static_cast<std::size_t>(base - keys) + (*base < x ? 1 : 0);
}

// The same search by counting: on ascending keys the first key not below x
// is the number of keys below x.  For short lines counting every key is
// cheaper than halving, since the comparisons depend on nothing but x and
// steer no branch.  n is a multiple of 4; keys past the line's own are
// +infinity, below no x.  A NaN x is below no key.
inline std::size_t CountKeysBelow(const double* keys, std::size_t n, double x)
{
#if defined(__x86_64__)
    // A true comparison is a lane of all ones, -1 as an integer: subtracting
    // the lanes counts them.
    const __m128d value = _mm_set1_pd(x);
    __m128i low = _mm_setzero_si128();
    __m128i high = _mm_setzero_si128();
    for (std::size_t r = 0; r < n; r += 4) {
        low = _mm_sub_epi64(low, _mm_castpd_si128(_mm_cmplt_pd(_mm_loadu_pd(keys + r), value)));
        high = _mm_sub_epi64(high, _mm_castpd_si128(_mm_cmplt_pd(_mm_loadu_pd(keys + r + 2), value)));
    }
    const __m128i both = _mm_add_epi64(low, high);
    return static_cast<std::size_t>(_mm_cvtsi128_si64(both) + _mm_cvtsi128_si64(_mm_unpackhi_epi64(both, both)));
#else
    std::size_t count = 0;
    for (std::size_t r = 0; r < n; ++r)
        count += keys[r] < x ? 1 : 0;
    return count;
#endif
}

// Lines up to this many rows are searched by counting.
constexpr std::size_t countedRows = 32;

// One bracket of a line: the lower row's point and the part of the
// expression that does not depend on the cell.
struct FlatBracket
{
    double x0;
    double y0;
    double a; // slope form: (y1 - y0) / (x1 - x0); fraction form: x0 - x1
    double b; // fraction form: y0 - y1
};

template <LineForm form>
class FlatLine
{
public:
    // Reads the line of `rows`; false when a value that a lookup could read
    // is missing.  The accessors give std::nullopt for a missing value.
    template <class Rows, class Key, class Abscissa, class Ordinate>
    bool Build(const Rows& rows, Key key, Abscissa abscissa, Ordinate ordinate)
    {
        const std::size_t n = rows.size();
        if (n == 0)
            return false;
        if (n == 1) {
            const std::optional<double> y = ordinate(rows[0]);
            m_single = y ? *y : 0.0;
            return y.has_value();
        }
        std::vector<double> xs(n), ys(n);
        m_keys.resize(n);
        for (std::size_t r = 0; r < n; ++r) {
            const std::optional<double> k = key(rows[r]), x = abscissa(rows[r]), y = ordinate(rows[r]);
            if (!k || !x || !y)
                return false;
            m_keys[r] = *k;
            xs[r] = *x;
            ys[r] = *y;
        }
        m_brackets.resize(n - 1);
        for (std::size_t u = 1; u < n; ++u) {
            FlatBracket& bracket = m_brackets[u - 1];
            bracket.x0 = xs[u - 1];
            bracket.y0 = ys[u - 1];
            if (form == LineForm::Slope) {
                bracket.a = (ys[u] - ys[u - 1]) / (xs[u] - xs[u - 1]);
                bracket.b = 0.0;
            } else {
                bracket.a = xs[u - 1] - xs[u];
                bracket.b = ys[u - 1] - ys[u];
            }
        }
        m_ascending = true;
        for (std::size_t r = 1; r < n; ++r)
            m_ascending = m_ascending && m_keys[r - 1] <= m_keys[r];
        m_counted = m_ascending && n <= countedRows;
        if (m_counted)
            m_keys.resize((n + 3) / 4 * 4, std::numeric_limits<double>::infinity());
        m_rows = n;
        return true;
    }

    // The interpolated value at x, in the bracket that the row search on
    // searchValue and the bracket rule pick; a line of one row gives its
    // ordinate.
    double At(double searchValue, double x) const
    {
        if (m_brackets.empty())
            return m_single;
        const FlatBracket& bracket = m_brackets[BracketUpper(FindRow(searchValue), m_rows) - 1];
        if (form == LineForm::Slope)
            return (x - bracket.x0) * bracket.a + bracket.y0;
        const double t = (bracket.x0 - x) / bracket.a;
        return bracket.y0 - (bracket.b * t);
    }

    // The row search over this line's keys (only for lines of two or more rows).
    std::size_t FindRow(double x) const
    {
        if (m_counted)
            return CountKeysBelow(m_keys.data(), m_keys.size(), x);
        if (m_ascending)
            return AscendingRowSearch(m_keys.data(), m_rows, x);
        return RowSearch(m_keys, x, [](double k) { return k; });
    }

    std::size_t size() const { return m_rows; }

private:
    std::size_t m_rows = 1;
    std::vector<double> m_keys;          // padded with +infinity where counted
    std::vector<FlatBracket> m_brackets; // the bracket with upper row u at u - 1
    double m_single = 0.0;               // the ordinate of a line of one row
    bool m_ascending = false;
    bool m_counted = false;
};

// Value accessors for Build: std::nullopt where the interpolators would fail.
inline std::optional<double> Present(const TScalarPtr& scalar)
{
    if (!scalar)
        return std::nullopt;
    return scalar->value;
}

inline std::optional<double> Reciprocal(const TScalarPtr& scalar)
{
    if (!scalar)
        return std::nullopt;
    return 1.0 / scalar->value;
}

template <class Row>
const typename decltype(Row::under_sat)::value_type* SaturatedPointOrNull(const Row& row)
{
    return row.under_sat.empty() ? nullptr : &row.under_sat[0];
}

// One flattened table per region of a list, or none where the region's
// table cannot be flattened (its cells then use the table itself).
template <class Flat>
class FlatRegions
{
public:
    template <class List, class Build>
    FlatRegions(const List& list, Build build) : m_flat(list.size())
    {
        for (std::size_t r = 0; r < list.size(); ++r) {
            std::unique_ptr<Flat> table(new Flat());
            if (build(*table, list[r]))
                m_flat[r] = std::move(table);
        }
    }

    const Flat* operator[](std::size_t pvtID) const { return m_flat[pvtID].get(); }

private:
    std::vector<std::unique_ptr<Flat>> m_flat;
};

} // namespace kavra
