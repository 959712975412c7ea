#pragma once

#include <cstddef>

#include "core/types/Records.h"
#include "core/utils/Precondition.h"

namespace kavra {

// Row search: the first row whose key is not below x (0..n).  The test is
// the strict x > key, so a key equal to x is found, the first of repeated
// keys wins, and a NaN x ends at row 0.
template <class Rows, class Key>
std::size_t RowSearch(const Rows& rows, double x, Key key)
{
    std::size_t first = 0;
    std::size_t count = rows.size();
    while (count > 0) {
        const std::size_t half = count / 2;
        const std::size_t mid = first + half;
        // Written as selects rather than branches: random search values make
        // branches unpredictable.
        const bool right = x > key(rows[mid]);
        first = right ? mid + 1 : first;
        count = right ? count - (half + 1) : half;
    }
    return first;
}

// Bracket rule for a table of at least two rows: the upper row of the
// bracket for a row search result.  The first bracket also serves every x
// at or below the first key, the last one every x above the last key.
inline std::size_t BracketUpper(std::size_t found, std::size_t rowCount)
{
    // found == rowCount gives rowCount - 1, found == 0 gives 1 (rowCount >= 2,
    // so at most one of the two holds); written as arithmetic, not branches.
    return found + std::size_t(found == 0) - std::size_t(found == rowCount);
}

// The saturated point of a two-level row: element 0 of its under_sat list.
template <class Row>
const auto& SaturatedPoint(const Row& row)
{
    PRECONDITION(!row.under_sat.empty(), "A table row has an empty under_sat list: its saturated point is missing.");
    return row.under_sat[0];
}

enum class LineForm
{
    Slope,   // (x - x0) * ((y1 - y0) / (x1 - x0)) + y0
    Fraction // y0 - ((y0 - y1) * ((x0 - x) / (x0 - x1)))
};

// Linear interpolation between the two rows that the row search on
// `searchValue` and the bracket rule pick, evaluated at `x`; a table of one
// row gives that row's ordinate.  Outside the table the end bracket is
// extended.
template <LineForm form, class Rows, class Key, class Abscissa, class Ordinate>
double InterpolateRows(const Rows& rows, double searchValue, double x, Key key, Abscissa abscissa, Ordinate ordinate)
{
    PRECONDITION(!rows.empty(), "Cannot interpolate in a table without rows.");
    if (rows.size() == 1)
        return ordinate(rows[0]);
    const std::size_t upper = BracketUpper(RowSearch(rows, searchValue, key), rows.size());
    const double x0 = abscissa(rows[upper - 1]);
    const double x1 = abscissa(rows[upper]);
    const double y0 = ordinate(rows[upper - 1]);
    const double y1 = ordinate(rows[upper]);
    if (form == LineForm::Slope)
        return (x - x0) * ((y1 - y0) / (x1 - x0)) + y0;
    const double t = (x0 - x) / (x0 - x1);
    return y0 - ((y0 - y1) * t);
}

// Bubble point pressure along the saturated line, linear in Rs.
double InterpolatePbub(const TPVTOTable& table, double Rs);

// B of a pressure table, linear in pressure (callers invert afterwards).
double InterpolateB(const TPVTTable& table, double pressure);

// Saturated Bo of a live-oil table, linear in pressure.
double InterpolateBoSat(const TPVTOTable& table, double pressure);

// 1/Bg along the saturated line: rows picked by Pg, interpolated in Rv
// between their first records.
double InterpolateOneOverBgSat(const TPVTGTable& table, double Rv, double Pg);

// 1/Bg within the records of one wet-gas row, linear in Rv.
double InterpolateOneOverBgRecords(const TPVTGRecordTable& records, double Rv);

} // namespace kavra
