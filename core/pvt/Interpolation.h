#pragma once

#include <cstddef>
#include <optional>
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

template <class Line, class Rows>
double InterpolateFound(const Rows& rows, std::size_t found, double x);

// The value along `Line` (below) at x, read from the rows themselves.
template <class Line, class Rows>
double InterpolateRows(const Rows& rows, double searchValue, double x)
{
    PRECONDITION(!rows.empty(), "Cannot interpolate in a table without rows.");
    // A table of one row gives its ordinate without a search.
    const std::size_t found = rows.size() == 1 ? 0 : RowSearch(rows, searchValue, [](const auto& row) {
        return Line::Key::Read(row);
    });
    return InterpolateFound<Line>(rows, found, x);
}

// ---------------------------------------------------------------------------
// A line of a table: which number of a row is its search key, its abscissa
// and its ordinate, and the form of its expression.  Interpolating along a
// line at x, for a search value s: the row search on s over the keys and
// the bracket rule pick two rows, and the value at x lies on the straight
// line through their (abscissa, ordinate) points; a table of one row gives
// its ordinate.  Outside the table the end bracket is extended.
//
// Each number of a row is read in one of two ways: `Read` for a lookup,
// where an unset scalar (or a missing saturated point) is a failed check at
// the cell that reaches it, and `Find` for flattening a table ahead of the
// cells, which gives std::nullopt where `Read` would fail.

inline std::optional<double> Present(const TScalarPtr& scalar)
{
    if (!scalar)
        return std::nullopt;
    return scalar->value;
}

// The scalar at `member` of a row.
template <auto member>
struct Field
{
    template <class Row>
    static double Read(const Row& row) { return ScalarValue(row.*member); }
    template <class Row>
    static std::optional<double> Find(const Row& row) { return Present(row.*member); }
};

// The scalar at `member` of a row's saturated point (element 0 of under_sat).
template <auto member>
struct SaturatedField
{
    template <class Row>
    static double Read(const Row& row) { return ScalarValue(SaturatedPoint(row).*member); }
    template <class Row>
    static std::optional<double> Find(const Row& row)
    {
        return row.under_sat.empty() ? std::nullopt : Present(row.under_sat[0].*member);
    }
};

// 1.0 over a number of a row.
template <class Number>
struct Reciprocal
{
    template <class Row>
    static double Read(const Row& row) { return 1.0 / Number::Read(row); }
    template <class Row>
    static std::optional<double> Find(const Row& row)
    {
        const std::optional<double> value = Number::Find(row);
        return value ? std::optional<double>(1.0 / *value) : std::nullopt;
    }
};

template <LineForm lineForm, class KeyNumber, class AbscissaNumber, class OrdinateNumber>
struct Line
{
    static constexpr LineForm form = lineForm;
    typedef KeyNumber Key;
    typedef AbscissaNumber Abscissa;
    typedef OrdinateNumber Ordinate;
};

// The lines that the calculations interpolate along.
// Bubble point pressure of a live-oil table, linear in Rs.
typedef Line<LineForm::Slope, Field<&TPVTO::Rs>, Field<&TPVTO::Rs>, SaturatedField<&TPVT::P>> PbubLine;
// B of a pressure table (dead fluid, or the rows of one live-oil row), linear in pressure.
typedef Line<LineForm::Slope, Field<&TPVT::P>, Field<&TPVT::P>, Field<&TPVT::B>> BLine;
// Saturated Bo of a live-oil table, linear in pressure.
typedef Line<LineForm::Slope, SaturatedField<&TPVT::P>, SaturatedField<&TPVT::P>, SaturatedField<&TPVT::B>>
    BoSaturatedLine;
// 1/Bg along the saturated line of a wet-gas table: rows picked by Pg,
// interpolated in Rv between their first records.
typedef Line<LineForm::Slope, Field<&TPVTG::Pg>, SaturatedField<&TPVTGRecord::Rv>,
             Reciprocal<SaturatedField<&TPVTGRecord::B>>>
    BgSaturatedLine;
// 1/Bg within the records of one wet-gas row, linear in Rv.
typedef Line<LineForm::Fraction, Field<&TPVTGRecord::Rv>, Field<&TPVTGRecord::Rv>, Reciprocal<Field<&TPVTGRecord::B>>>
    BgRecordsLine;

// One bracket of a line: the lower row's point and the part of the
// expression that does not depend on x, computed with the very operands
// that the expression written out in full would use.
template <LineForm form>
struct Bracket
{
    double x0;
    double y0;
    double a; // slope form: (y1 - y0) / (x1 - x0); fraction form: x0 - x1
    double b; // fraction form: y0 - y1

    static Bracket Between(double x0, double x1, double y0, double y1)
    {
        if (form == LineForm::Slope)
            return Bracket{x0, y0, (y1 - y0) / (x1 - x0), 0.0};
        return Bracket{x0, y0, x0 - x1, y0 - y1};
    }

    double At(double x) const
    {
        if (form == LineForm::Slope)
            return (x - x0) * a + y0;
        const double t = (x0 - x) / a;
        return y0 - (b * t);
    }
};

// The value along `Line` at x in the bracket that the bracket rule makes of
// a row search result `found`; a table of one row gives its ordinate.  The
// rows are read in the order x0, x1, y0, y1.
template <class Line, class Rows>
double InterpolateFound(const Rows& rows, std::size_t found, double x)
{
    if (rows.size() == 1)
        return Line::Ordinate::Read(rows[0]);
    const std::size_t upper = BracketUpper(found, rows.size());
    const double x0 = Line::Abscissa::Read(rows[upper - 1]);
    const double x1 = Line::Abscissa::Read(rows[upper]);
    const double y0 = Line::Ordinate::Read(rows[upper - 1]);
    const double y1 = Line::Ordinate::Read(rows[upper]);
    return Bracket<Line::form>::Between(x0, x1, y0, y1).At(x);
}

// B of a pressure table at a pressure (callers invert afterwards).
double InterpolateB(const TPVTTable& table, double pressure);

} // namespace kavra
