#pragma once

// Tables flattened once per call into contiguous doubles, so that the cell
// loop reads no shared pointers.  A flattened line gives bit for bit what
// the interpolators give on the table itself: the same row search over the
// same keys, the same bracket, and the same expressions, with the part of
// each expression that does not depend on the cell (the slope, or the two
// differences of the fraction form) evaluated ahead with the very operands
// the cell would use.  A table in which some value that a lookup could read
// is missing (an unset scalar, an empty under_sat list) is not flattened:
// its cells take the interpolators on the table itself, which report the
// problem at the cell that reaches it.
#include <memory>
#include <optional>
#include <vector>

#include "core/pvt/Interpolation.h"

namespace kavra {

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
            m_ys.assign(1, y ? *y : 0.0);
            return y.has_value();
        }
        m_keys.resize(n);
        m_xs.resize(n);
        m_ys.resize(n);
        for (std::size_t r = 0; r < n; ++r) {
            const std::optional<double> k = key(rows[r]), x = abscissa(rows[r]), y = ordinate(rows[r]);
            if (!k || !x || !y)
                return false;
            m_keys[r] = *k;
            m_xs[r] = *x;
            m_ys[r] = *y;
        }
        m_a.assign(n, 0.0);
        m_b.assign(n, 0.0);
        for (std::size_t u = 1; u < n; ++u) {
            if (form == LineForm::Slope) {
                m_a[u] = (m_ys[u] - m_ys[u - 1]) / (m_xs[u] - m_xs[u - 1]);
            } else {
                m_a[u] = m_xs[u - 1] - m_xs[u];
                m_b[u] = m_ys[u - 1] - m_ys[u];
            }
        }
        return true;
    }

    double At(double searchValue, double x) const
    {
        if (m_ys.size() == 1)
            return m_ys[0];
        const std::size_t upper = BracketUpper(FindRow(searchValue), m_keys.size());
        if (form == LineForm::Slope)
            return (x - m_xs[upper - 1]) * m_a[upper] + m_ys[upper - 1];
        const double t = (m_xs[upper - 1] - x) / m_a[upper];
        return m_ys[upper - 1] - (m_b[upper] * t);
    }

    // The row search over this line's keys (only for lines of two or more rows).
    std::size_t FindRow(double x) const
    {
        return RowSearch(m_keys, x, [](double k) { return k; });
    }

    std::size_t size() const { return m_ys.size(); }

private:
    std::vector<double> m_keys, m_xs, m_ys, m_a, m_b;
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
template <class Flat, class List, class Build>
std::vector<std::unique_ptr<Flat>> FlattenRegions(const List& list, Build build)
{
    std::vector<std::unique_ptr<Flat>> flat(list.size());
    for (std::size_t r = 0; r < list.size(); ++r) {
        std::unique_ptr<Flat> table(new Flat());
        if (build(*table, list[r]))
            flat[r] = std::move(table);
    }
    return flat;
}

} // namespace kavra
