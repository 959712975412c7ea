#pragma once

// The tables of the PVT calculations, in two models with one interface, so
// that each calculation's rule is written once as a template over them:
//
// - in place (TableLine, TableTwoLevel, TableRecord): every lookup reads the
//   rows themselves through the lines' Read (core/pvt/Interpolation.h), so a
//   missing number fails at the cell that reaches it, in the order of reads
//   of the documented steps;
// - flattened (FlatLine, FlatTwoLevel, FlatRecord): the numbers copied once
//   per call into contiguous doubles, so that the cell loop reads no shared
//   pointers.  A table in which some number that a lookup could read is
//   missing is not flattened; its cells use the table in place.
//
// A flattened line gives bit for bit what the same line gives in place: the
// row it finds is the row that the row search finds, its bracket is the one
// of the bracket rule, and its expression is that of Bracket, whose part
// that does not depend on the cell is computed ahead with the very operands
// the cell would use.
//
// A line: At(searchValue, x), FindRow(searchValue), AtRow(found, x) (the
// value at x in the bracket of a row search result; a line of one row gives
// its ordinate), Key(r), size().
// A two-level table (rows that each hold a line of their own in under_sat,
// along a saturated line through the rows' first points): Saturated(),
// Row(r), Key(r) (the saturated line's key of row r), Step(r) (= Key(r) -
// Key(r - 1)), size().
// A record: Values(), its numbers in the order of its Numbers.
// Each flattened model names its in-place model as InPlace<Table>.
#include <array>
#include <cstddef>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "core/pvt/Interpolation.h"
#include "core/utils/Platform.h"

namespace kavra {

template <class Line, class Rows>
class TableLine
{
public:
    explicit TableLine(const Rows& rows) : m_rows(rows) {}

    double At(double searchValue, double x) const { return InterpolateRows<Line>(m_rows, searchValue, x); }
    std::size_t FindRow(double searchValue) const
    {
        return RowSearch(m_rows, searchValue, [](const auto& row) { return Line::Key::Read(row); });
    }
    // rows not empty
    double AtRow(std::size_t found, double x) const { return InterpolateFound<Line>(m_rows, found, x); }
    double Key(std::size_t r) const { return Line::Key::Read(m_rows[r]); }
    std::size_t size() const { return m_rows.size(); }

private:
    const Rows& m_rows;
};

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

template <class Line>
class FlatLine
{
public:
    template <class Rows>
    using InPlace = TableLine<Line, Rows>;

    // False when there are no rows or a number of the line is missing.
    template <class Rows>
    bool Build(const Rows& rows)
    {
        const std::size_t n = rows.size();
        if (n == 0)
            return false;
        std::vector<double> xs(n), ys(n);
        m_keys.resize(n);
        for (std::size_t r = 0; r < n; ++r) {
            const std::optional<double> k = Line::Key::Find(rows[r]);
            const std::optional<double> x = Line::Abscissa::Find(rows[r]);
            const std::optional<double> y = Line::Ordinate::Find(rows[r]);
            if (!k || !x || !y)
                return false;
            m_keys[r] = *k;
            xs[r] = *x;
            ys[r] = *y;
        }
        m_single = ys[0];
        m_brackets.resize(n - 1);
        for (std::size_t u = 1; u < n; ++u)
            m_brackets[u - 1] = Bracket<Line::form>::Between(xs[u - 1], xs[u], ys[u - 1], ys[u]);
        m_ascending = true;
        for (std::size_t r = 1; r < n; ++r)
            m_ascending = m_ascending && m_keys[r - 1] <= m_keys[r];
        m_counted = m_ascending && n <= platform::countedRows;
        if (m_counted)
            m_keys.resize((n + 3) / 4 * 4, std::numeric_limits<double>::infinity());
        m_rows = n;
        return true;
    }

    double At(double searchValue, double x) const
    {
        if (m_brackets.empty())
            return m_single;
        return AtRow(FindRow(searchValue), x);
    }

    // On ascending keys by counting (short lines) or by fixed halvings; on
    // any other keys by the row search itself.
    std::size_t FindRow(double x) const
    {
        if (m_counted)
            return platform::CountKeysBelow(m_keys.data(), m_keys.size(), x);
        if (m_ascending)
            return AscendingRowSearch(m_keys.data(), m_rows, x);
        return RowSearch(m_keys, x, [](double k) { return k; });
    }

    double AtRow(std::size_t found, double x) const
    {
        if (m_brackets.empty())
            return m_single;
        return m_brackets[BracketUpper(found, m_rows) - 1].At(x);
    }

    double Key(std::size_t r) const { return m_keys[r]; }
    std::size_t size() const { return m_rows; }

private:
    std::size_t m_rows = 0;
    std::vector<double> m_keys;                      // padded with +infinity where counted
    std::vector<Bracket<Line::form>> m_brackets;     // the bracket with upper row u at u - 1
    double m_single = 0.0;                           // the ordinate of a line of one row
    bool m_ascending = false;
    bool m_counted = false;
};

template <class SaturatedLine, class RowLine, class Table>
class TableTwoLevel
{
public:
    explicit TableTwoLevel(const Table& table) : m_table(table) {}

    TableLine<SaturatedLine, Table> Saturated() const { return TableLine<SaturatedLine, Table>(m_table); }
    auto Row(std::size_t r) const
    {
        return TableLine<RowLine, decltype(m_table[r].under_sat)>(m_table[r].under_sat);
    }
    double Key(std::size_t r) const { return SaturatedLine::Key::Read(m_table[r]); }
    double Step(std::size_t r) const
    {
        const double upper = Key(r);
        return upper - Key(r - 1);
    }
    std::size_t size() const { return m_table.size(); }

private:
    const Table& m_table;
};

template <class SaturatedLine, class RowLine>
class FlatTwoLevel
{
public:
    template <class Table>
    using InPlace = TableTwoLevel<SaturatedLine, RowLine, Table>;

    template <class Table>
    bool Build(const Table& table)
    {
        if (!m_saturated.Build(table))
            return false;
        m_rows.resize(table.size());
        for (std::size_t r = 0; r < table.size(); ++r)
            if (!m_rows[r].Build(table[r].under_sat))
                return false;
        return true;
    }

    const FlatLine<SaturatedLine>& Saturated() const { return m_saturated; }
    const FlatLine<RowLine>& Row(std::size_t r) const { return m_rows[r]; }
    double Key(std::size_t r) const { return m_saturated.Key(r); }
    double Step(std::size_t r) const { return Key(r) - Key(r - 1); }
    std::size_t size() const { return m_rows.size(); }

private:
    FlatLine<SaturatedLine> m_saturated;
    std::vector<FlatLine<RowLine>> m_rows;
};

template <class Record, class... Numbers>
class TableRecord
{
public:
    explicit TableRecord(const Record& record) : m_record(record) {}

    // Read in the order of Numbers.
    std::array<double, sizeof...(Numbers)> Values() const { return {{Numbers::Read(m_record)...}}; }

private:
    const Record& m_record;
};

template <class... Numbers>
class FlatRecord
{
public:
    template <class Record>
    using InPlace = TableRecord<Record, Numbers...>;

    template <class Record>
    bool Build(const Record& record)
    {
        const std::array<std::optional<double>, sizeof...(Numbers)> found{{Numbers::Find(record)...}};
        for (std::size_t i = 0; i < found.size(); ++i) {
            if (!found[i])
                return false;
            m_values[i] = *found[i];
        }
        return true;
    }

    std::array<double, sizeof...(Numbers)> Values() const { return m_values; }

private:
    std::array<double, sizeof...(Numbers)> m_values{};
};

// One flattened table per region of a list, or none where the region's
// table cannot be flattened.
template <class Flat>
class FlatRegions
{
public:
    template <class List>
    explicit FlatRegions(const List& list) : m_flat(list.size())
    {
        for (std::size_t r = 0; r < list.size(); ++r) {
            std::unique_ptr<Flat> table(new Flat());
            if (table->Build(list[r]))
                m_flat[r] = std::move(table);
        }
    }

    const Flat* operator[](std::size_t pvtID) const { return m_flat[pvtID].get(); }

private:
    std::vector<std::unique_ptr<Flat>> m_flat;
};

} // namespace kavra
