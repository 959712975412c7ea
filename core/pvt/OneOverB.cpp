#include "core/pvt/OneOverB.h"

#include "core/pvt/RegionCells.h"

namespace kavra {

namespace {

// The rule: B interpolated linearly in pressure along the region's table
// (the row search and the bracket rule on P), then inverted: 1.0 over the
// interpolated B, never an interpolated 1/B.
const auto OneOverBAt = [](const auto& pressureLine, double p) { return 1.0 / pressureLine.At(p, p); };

// A region's table, flattened where it can be: one line of B in P.
typedef FlatLine<BLine> FlatB;

// The checks of a cell's region, made before its first cell is computed:
// the region has a table, and the table has rows.  Cells of a region below
// 1 never get here: they are written 0.0, and their pressure is not read.
const TPVTTable& RegionTable(const TPVTList& pvtList, std::uint64_t pvtID)
{
    // The message speaks of pvtID, counted from 0; for an empty list the
    // upper bound wraps around in the unsigned type and shows 2^64 - 1.
    PRECONDITION(pvtID<pvtList.size(), (WrongRegion{pvtID, pvtList.size()}));
    const TPVTTable& pvt_table = pvtList[pvtID];
    PRECONDITION(!pvt_table.empty(), (EmptyTable{"Empty PVT table!!", pvtID}));
    return pvt_table;
}

} // namespace

// The argument checks come first, in this order: None, then the count of
// every grid function against the result's.  A refused call writes nothing.
// Variants: PVTNum an array of int with arrays of double for the others,
// else any grid functions through their accessors (the same numbers).  A
// failure at a cell leaves the cells before it written.
template <class Variants> void OneOverBIn(Variants, const TPVTList& pvtList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_P, GridFunctionPtr OneOverB)
{
    CheckGridFunctionGiven("PVTNum", p_PVTNum);
    CheckGridFunctionGiven("P", p_P);
    CheckGridFunctionGiven("OneOverB", OneOverB);

    const std::uint64_t nElts = OneOverB->number_of_elements();
    PRECONDITION(nElts == p_PVTNum->number_of_elements(), "OneOverB and PVTNum should have the same number of elements.");
    PRECONDITION(nElts == p_P->number_of_elements(), "OneOverB and P should have the same number of elements.");

    CalculateByRegion<FlatB, RegionTable>(Variants(), pvtList, OneOverBAt, nElts, p_PVTNum, p_P, OneOverB);
}

// The calculation's own variants, and with the engine's.
void CalcOneOverB(const TPVTList& pvtList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_P, GridFunctionPtr OneOverB)
{
    OneOverBIn(ElementTypes<double>(), pvtList, p_PVTNum, p_P, OneOverB);
}

void CalcOneOverB(EngineVariants, const TPVTList& pvtList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_P, GridFunctionPtr OneOverB)
{
    OneOverBIn(EngineVariants::Types(), pvtList, p_PVTNum, p_P, OneOverB);
}

} // namespace kavra
