// CalcOneOverBo: the reciprocal oil formation volume factor of each cell,
// from the live-oil table of the cell's PVT region.  The cell's Po and Pbub
// decide between a lookup along the table's saturated line and a lookup in
// one row's undersaturated branch.
//
// Arguments, in call order: the tables by region (pvtID = region number
// minus 1), PVTNum (region numbers from 1), Po, Pbub, and the result
// OneOverBo.  The steps:
//   1. None is refused, then the counts of PVTNum, Po and Pbub are compared
//      with the result's; a refused call writes nothing.
//   2. Cells are walked from 0 upwards.  A cell of a region below 1 gets
//      0.0 and its Po and Pbub are not read; any other region must have a
//      table, and the table rows.  The cell's Po is read, then its Pbub, and
//      the cell gets the rule below.
//   3. A failure at a cell leaves the cells before it written, that cell
//      and all later ones as they were: there is no rollback.
// Of a row only the saturated point (under_sat[0].P and .B) and the P and B
// of its under_sat rows are read; never Rs, never Mi.
#include "core/pvt/OneOverBo.h"

#include <cmath>

#include "core/pvt/RegionCells.h"

namespace kavra {

namespace {

// The tolerance that separates saturated from undersaturated oil, in the
// pressure unit of the table; no setting changes it.
const double pressureTolerance = 0.0001;

// A region's table, flattened where it can be: the saturated line (keyed
// by the rows' saturated pressures) and each row's own line of B in P.  A
// table in which a row lacks its saturated point, or a number that a lookup
// could read is unset, is read in place.
typedef FlatTwoLevel<BoSaturatedLine, BLine> FlatOil;

// The rule.  Within the tolerance of Pbub (no sign) the oil is saturated:
// Bo is read off the saturated line at Po, not at Pbub.  Otherwise Bo comes
// from one row: the upper row of the bracket that the row search for Pbub
// over the saturated pressures and the bracket rule pick (the first row
// whose saturated pressure is not below Pbub; the last row above them all;
// the second, not the first, at or below the first row's; in a table of
// one row that row), looked up at Po in the row's undersaturated line, as
// it stands: no blending between rows, no compressibility.  Po below Pbub
// extends the row's lowest bracket downwards.  A NaN is never saturated.
// 1/Bo is 1.0 over the interpolated Bo.
//
// For a table of two rows with the saturated points (P, B) = (100, 1.2) and
// (200, 1.3), whose second row goes on with (300, 1.25):
//   Po 150, Pbub 150        saturated: 1.0 / 1.25
//   Po 150, Pbub 150.00005  saturated as well, looked up at 150
//   Po 300, Pbub 150        the second row, the first with a saturated
//                           pressure not below 150: 1.0 / 1.25
//   Po 300, Pbub 100        the second row too: Pbub on the first row's
//                           saturated pressure goes to the second row
//   Po 300, Pbub 250        the last row, the second here
//   Po 150, Pbub 180        undersaturated, although Po is below Pbub: the
//                           second row's line at 150, extended below its
//                           first point, gives 1.325, so 1.0 / 1.325
// Po and Pbub exactly 0.0001 apart, as far as double arithmetic gives that
// difference, are undersaturated: the comparison is strict.  A table of one
// row serves both branches: its saturated B, or its own undersaturated
// line.
const auto OneOverBoAt = [](const auto& oil, double po, double pbub) {
    if (pressureTolerance > std::fabs(po - pbub))
        return 1.0 / oil.Saturated().At(po, po);
    const std::size_t n = oil.size();
    const std::size_t row = n > 1 ? BracketUpper(oil.Saturated().FindRow(pbub), n) : 0;
    return 1.0 / oil.Row(row).At(po, po);
};

// The checks of a cell's region, made before its first cell is computed:
// the region has a table, and the table has rows (with the plain PVT
// wording, although the table is a live-oil table).  Cells of a region
// below 1 never get here.
const TPVTOTable& RegionTable(const TPVTOList& pvtoList, std::uint64_t pvtID)
{
    // The message speaks of pvtID, counted from 0; for an empty list the
    // upper bound wraps around in the unsigned type and shows 2^64 - 1.
    PRECONDITION(pvtID<pvtoList.size(), (WrongRegion{pvtID, pvtoList.size()}));
    const TPVTOTable& pvt_table = pvtoList[pvtID];
    PRECONDITION(!pvt_table.empty(), (EmptyTable{"Empty PVT table!!", pvtID}));
    return pvt_table;
}

} // namespace

// Variants: PVTNum an array of int with arrays of double for the others, or
// of float (values widened to double; comparison, search, interpolation and
// reciprocal in double; the result rounded once to float), else any grid
// functions through their accessors, one virtual call per element.  All
// three give the same numbers.  None of them allocates in the cell loop;
// the tables are flattened once per call, after the checks.
template <class Variants> void OneOverBoIn(Variants, const TPVTOList& pvtoList, GridFunctionPtr PVTNum, GridFunctionPtr Po, GridFunctionPtr Pbub,
                   GridFunctionPtr OneOverBo)
{
    CheckGridFunctionGiven("PVTNum", PVTNum);
    CheckGridFunctionGiven("Po", Po);
    CheckGridFunctionGiven("Pbub", Pbub);
    CheckGridFunctionGiven("OneOverBo", OneOverBo);

    const std::uint64_t nElts = OneOverBo->number_of_elements();
    PRECONDITION(nElts == PVTNum->number_of_elements(), "OneOverBo and PVTNum should have the same number of elements.");
    PRECONDITION(nElts == Po->number_of_elements(), "OneOverBo and Po should have the same number of elements.");
    PRECONDITION(nElts == Pbub->number_of_elements(), "OneOverBo and Pbub should have the same number of elements.");

    CalculateByRegion<FlatOil, RegionTable>(Variants(), pvtoList, OneOverBoAt, nElts, PVTNum, Po,
                                            Pbub, OneOverBo);
}

// The calculation's own variants, and with the engine's.
void CalcOneOverBo(const TPVTOList& pvtoList, GridFunctionPtr PVTNum, GridFunctionPtr Po, GridFunctionPtr Pbub, GridFunctionPtr OneOverBo)
{
    OneOverBoIn(ElementTypes<double, float>(), pvtoList, PVTNum, Po, Pbub, OneOverBo);
}

void CalcOneOverBo(EngineVariants, const TPVTOList& pvtoList, GridFunctionPtr PVTNum, GridFunctionPtr Po, GridFunctionPtr Pbub, GridFunctionPtr OneOverBo)
{
    OneOverBoIn(EngineVariants::Types(), pvtoList, PVTNum, Po, Pbub, OneOverBo);
}

} // namespace kavra
