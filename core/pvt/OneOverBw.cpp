// CalcOneOverBw: the reciprocal water formation volume factor of each cell.
// Water has no table: one TPVTW record per PVT region gives a reference
// state and a compressibility, and a closed formula does the rest.
//
// Arguments, in call order: the records by region (pvtID = region number
// minus 1), PVTNum (region numbers from 1), Pw, and the result OneOverBw.
// The steps:
//   1. None is refused, then the counts of PVTNum and of Pw are compared
//      with the result's; a refused call writes nothing.
//   2. Cells are walked from 0 upwards.  A cell of a region below 1 gets
//      0.0 and its pressure is not read; any other region must have a
//      record, and the cell gets the rule below on the record's P_ref, Cw
//      and Bw_ref (Miw_ref and Cvw are never read).
//   3. A failure at a cell leaves the cells before it written, that cell
//      and all later ones as they were: there is no rollback.
#include "core/pvt/OneOverBw.h"

#include "core/pvt/RegionCells.h"

namespace kavra {

namespace {

// A region's record, read once per call where its three numbers are set.
// A record with an unset one is read at every cell of its region, which
// fails at the first.
// Values() gives them in this order: P_ref, Cw, Bw_ref.
typedef FlatRecord<Field<&TPVTW::P_ref>, Field<&TPVTW::Cw>, Field<&TPVTW::Bw_ref>> FlatWater;

// The check of a cell's region, made before its first cell is computed:
// the region has a record (the list holds records, not tables, so there is
// no empty table).  The records hold shared scalars: a value that a script
// changes between two calls is seen by the next call.
const TPVTW& RegionRecord(const TPVTWList& pvtwList, std::uint64_t pvtID)
{
    // The message speaks of pvtID, counted from 0; for an empty list the
    // upper bound wraps around in the unsigned type and shows 2^64 - 1.
    PRECONDITION(pvtID<pvtwList.size(), (WrongRegion{pvtID, pvtwList.size()}));
    return pvtwList[pvtID];
}

// The rule: with x = (Pw - P_ref) * Cw, 1/Bw = ((x * 0.5) * x + (x + 1.0))
// / Bw_ref, the exponential of x cut after its second-order term, evaluated
// in this grouping, in double (no exponential function is called).  A
// Bw_ref of 0 gives an infinity or a NaN (IEEE 754), not a failure.
const auto OneOverBwAt = [](const auto& water, double pw) {
    const auto [P_ref, Cw, Bw_ref] = water.Values();
    const double x = (pw - P_ref) * Cw;
    const double numerator = ((x * 0.5) * x) + (x + 1.0);
    return numerator / Bw_ref;
};

} // namespace

template <class Variants> void OneOverBwIn(Variants, const TPVTWList& pvtwList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pw, GridFunctionPtr OneOverBw)
{
    CheckGridFunctionGiven("PVTNum", p_PVTNum);
    CheckGridFunctionGiven("Pw", p_Pw);
    CheckGridFunctionGiven("OneOverBw", OneOverBw);

    const std::uint64_t nElts = OneOverBw->number_of_elements();
    PRECONDITION(nElts == p_PVTNum->number_of_elements(), "OneOverBw and PVTNum should have the same number of elements.");
    PRECONDITION(nElts == p_Pw->number_of_elements(), "OneOverBw and Pw should have the same number of elements.");

    CalculateByRegion<FlatWater, RegionRecord>(Variants(), pvtwList, OneOverBwAt, nElts, p_PVTNum, p_Pw,
                                               OneOverBw);
}

// The calculation's own variants, and with the engine's.
void CalcOneOverBw(const TPVTWList& pvtwList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pw, GridFunctionPtr OneOverBw)
{
    OneOverBwIn(ElementTypes<double>(), pvtwList, p_PVTNum, p_Pw, OneOverBw);
}

void CalcOneOverBw(EngineVariants, const TPVTWList& pvtwList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pw, GridFunctionPtr OneOverBw)
{
    OneOverBwIn(EngineVariants::Types(), pvtwList, p_PVTNum, p_Pw, OneOverBw);
}

} // namespace kavra
