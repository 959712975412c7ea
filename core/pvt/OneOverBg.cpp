// CalcOneOverBg: the reciprocal gas formation volume factor of each cell,
// from the wet-gas table of the cell's PVT region.  The table has two
// levels: rows ordered by the gas pressure Pg, each with records ordered by
// the vaporised oil ratio Rv.  The cell's Pg, dew point pressure Pdew and
// Rv decide between a lookup along the table's saturated line and a
// two-level interpolation.  Unlike the oil and dead-fluid calculations this
// one interpolates 1/Bg itself: B values are inverted first.
//
// Arguments, in call order: the tables by region (pvtID = region number
// minus 1), PVTNum (region numbers from 1), Pg, Pdew, Rv, and the result
// OneOverBg.  The steps:
//   1. None is refused, then the counts of PVTNum, Pg, Pdew and Rv are
//      compared with the result's; a refused call writes nothing.
//   2. Cells are walked from 0 upwards.  A cell of a region below 1 gets
//      0.0 and its inputs are not read; any other region must have a table,
//      and the table rows.  The cell's Pg, Pdew and Rv are read, in this
//      order, and the cell gets the rule below.
//   3. A failure at a cell leaves the cells before it written, that cell
//      and all later ones as they were: there is no rollback.
// Of a row only Pg and the Rv and B of its records are read; never Mi.
//
// Failures, each a failed check that names this file and the check's line:
//   a count that differs from the result's: "OneOverBo and <argument> should
//     have the same number of elements." (OneOverBo, in this gas calculation
//     too: scripts match on these texts);
//   a region above the list: "Wrong PVT region number: <pvtID>, valid
//     interval [0, <number of tables - 1>].";
//   a table without rows: "Empty PVT table!!";
//   an unset number that a lookup reads, or a row whose records were
//     emptied: the texts of core/types/Scalar.h and core/pvt/Interpolation.h.
// A zero-width bracket or a B of 0 gives an infinity or a NaN (IEEE 754),
// not a failure.
#include "core/pvt/OneOverBg.h"

#include <cmath>

#include "core/pvt/RegionCells.h"

namespace kavra {

namespace {

// The tolerance that separates saturated gas, in the pressure unit of the
// table; no setting changes it.  The comparison is strict: Pg and Pdew
// exactly 0.0001 apart, as far as double arithmetic gives it, are not.
const double pressureTolerance = 0.0001;

// A region's table, flattened where it can be: the saturated line (rows by
// Pg, 1/Bg in Rv between the rows' first records), each row's own line of
// 1/Bg in Rv, and the differences between the Pg of neighbouring rows.  A
// table in which a row lacks its first record, or a number that a lookup
// could read is unset, is read in place.  Flattening costs one pass over
// the table per call; the cell loop then reads no shared pointer.
typedef FlatTwoLevel<BgSaturatedLine, BgRecordsLine> FlatGas;

// The rule.  Within the tolerance of Pdew (no sign; Pdew serves nothing
// else) the gas is saturated: 1/Bg is read off the saturated line, whose
// two rows the row search on Pg and the bracket rule pick and between whose
// first records 1/Bg is interpolated at Rv.  Otherwise the row search on Pg
// finds the upper of two rows; where it finds the end of the table or its
// first row, Pg is not extrapolated in pressure and the saturated line
// applies as well.  Between two rows, 1/Bg at Rv in the records of each,
// f1 (upper) and f0 (lower), are blended by t = (P1 - Pg) / (P1 - P0), the
// rows' Pg being P1 and P0, to f1 - ((f1 - f0) * t).  A NaN is never
// saturated; a NaN Pg ends the row search at the first row.
//
// For a table of two rows, Pg 100 with the records (Rv, B) = (0.01, 0.02),
// (0.03, 0.025), that is 1/Bg of 50 and 40, and Pg 200 with (0.02, 0.01),
// (0.04, 0.0125), that is 1/Bg of 100 and 80:
//   Pg 150, Pdew 300, Rv 0.02    between the rows: the upper row gives 100,
//                                the lower 45, t is 0.5: 72.5
//   Pg 200, Pdew 300, Rv 0.02    the second row is found, t is 0: 100
//   Pg 100, Pdew 300, Rv 0.02    the first row is found: the saturated line,
//                                between the first records, gives 100
//   Pg 250, Pdew 300, Rv 0.015   above the last row: the saturated line, 75
//   Pg 150, Pdew 150, Rv 0.015   saturated, although the search would find
//                                a bracket between the rows: 75
// A table of one row always ends at the saturated line and gives 1.0 over
// the B of its first record, for every Rv.  Rv outside a row's records
// extends that row's lowest or highest bracket.
const auto OneOverBgAt = [](const auto& gas, double pg, double pdew, double rv) {
    if (pressureTolerance > std::fabs(pg - pdew))
        return gas.Saturated().At(pg, rv);
    const std::size_t found = gas.Saturated().FindRow(pg);
    if (found == gas.size() || found == 0)
        return gas.Saturated().AtRow(found, rv);
    const double f1 = gas.Row(found).At(rv, rv);
    const double f0 = gas.Row(found - 1).At(rv, rv);
    const double P1 = gas.Key(found);
    const double t = (P1 - pg) / gas.Step(found);
    return f1 - ((f1 - f0) * t);
};

// The checks of a cell's region, made before its first cell is computed
// (ahead of any read of that cell's inputs): the region has a table, and
// the table has rows.  Cells of a region below 1 never get here.  Made once
// per run of cells of one region rather than per cell (regions lie in
// blocks in a grid), they fail with the same texts at the same cell, the
// first of the region.
const TPVTGTable& RegionTable(const TPVTGList& p_pvtg_list, std::uint64_t pvtID)
{
    // The message speaks of pvtID, counted from 0; for an empty list the
    // upper bound wraps around in the unsigned type and shows 2^64 - 1.
    PRECONDITION(pvtID < p_pvtg_list.size(), (WrongRegion{pvtID, p_pvtg_list.size()}));
    const TPVTGTable& pvt_table = p_pvtg_list[pvtID];
    PRECONDITION(!pvt_table.empty(), (EmptyTable{"Empty PVT table!!", pvtID}));
    return pvt_table;
}

} // namespace

// Variants: PVTNum an array of int with arrays of double for the others, or
// of float (values widened to double; comparison, search, interpolation and
// reciprocals in double; the result rounded once to float), else any grid
// functions through their accessors, one virtual call per element.  All
// three give the same numbers.  None of them allocates in the cell loop;
// the tables are flattened once per call, after the checks, and a cell
// searches each line it reads once.
template <class Variants> void OneOverBgIn(Variants, const TPVTGList& p_pvtg_list, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pg,
                   GridFunctionPtr p_Pdew, GridFunctionPtr p_Rv, GridFunctionPtr OneOverBg)
{
    CheckGridFunctionGiven("PVTNum", p_PVTNum);
    CheckGridFunctionGiven("Pg", p_Pg);
    CheckGridFunctionGiven("Pdew", p_Pdew);
    CheckGridFunctionGiven("Rv", p_Rv);
    CheckGridFunctionGiven("OneOverBg", OneOverBg);

    // The count messages of this gas calculation name OneOverBo: scripts match on these texts.
    const std::uint64_t number_of_elements = OneOverBg->number_of_elements();
    PRECONDITION(number_of_elements == p_PVTNum->number_of_elements(),
                 "OneOverBo and PVTNum should have the same number of elements.");
    PRECONDITION(number_of_elements == p_Pg->number_of_elements(),
                 "OneOverBo and Pg should have the same number of elements.");
    PRECONDITION(number_of_elements == p_Pdew->number_of_elements(),
                 "OneOverBo and Pdew should have the same number of elements.");
    PRECONDITION(number_of_elements == p_Rv->number_of_elements(),
                 "OneOverBo and Rv should have the same number of elements.");

    CalculateByRegion<FlatGas, RegionTable>(Variants(), p_pvtg_list, OneOverBgAt, number_of_elements,
                                            p_PVTNum, p_Pg, p_Pdew, p_Rv, OneOverBg);
}

// The calculation's own variants, and with the engine's.
void CalcOneOverBg(const TPVTGList& p_pvtg_list, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pg, GridFunctionPtr p_Pdew, GridFunctionPtr p_Rv, GridFunctionPtr OneOverBg)
{
    OneOverBgIn(ElementTypes<double, float>(), p_pvtg_list, p_PVTNum, p_Pg, p_Pdew, p_Rv, OneOverBg);
}

void CalcOneOverBg(EngineVariants, const TPVTGList& p_pvtg_list, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pg, GridFunctionPtr p_Pdew, GridFunctionPtr p_Rv, GridFunctionPtr OneOverBg)
{
    OneOverBgIn(EngineVariants::Types(), p_pvtg_list, p_PVTNum, p_Pg, p_Pdew, p_Rv, OneOverBg);
}

} // namespace kavra
