#include "core/pvt/BubblePointPressure.h"

#include "core/pvt/RegionCells.h"

namespace kavra {

namespace {

// The rule: the pressure of the saturated line of the region's live-oil
// table at the cell's Rs, linear in Rs (the row search and the bracket rule
// on the rows' Rs; the ordinate is each row's saturated pressure,
// under_sat[0].P).  Outside the table the end bracket is extended, and a
// table of one row gives its saturated pressure for every Rs.
const auto BubblePointAt = [](const auto& pbubLine, double rs) { return pbubLine.At(rs, rs); };

// A region's table, flattened where it can be: one line of Pbub in Rs.  No
// other field of the table is read (not B, not the further under_sat rows).
typedef FlatLine<PbubLine> FlatPbub;

// The checks of a cell's region, made before its first cell is computed:
// the region has a table, and the table has rows.  Cells of a region below
// 1 never get here: they are written 0.0, and their Rs is not read.
const TPVTOTable& RegionTable(const TPVTOList& p_pvtoList, std::uint64_t pvtID)
{
    // The message speaks of pvtID, counted from 0; for an empty list the
    // upper bound wraps around in the unsigned type and shows 2^64 - 1.
    PRECONDITION(pvtID<p_pvtoList.size(), (WrongRegion{pvtID, p_pvtoList.size()}));
    const TPVTOTable& pvto_table = p_pvtoList[pvtID];
    PRECONDITION(!pvto_table.empty(), (EmptyTable{"Empty PVTO table!!", pvtID}));
    return pvto_table;
}

} // namespace

// The argument checks come first, in this order: None, then the count of
// every grid function against the result's.  A refused call writes nothing.
// Variants: PVTNum an array of int with arrays of double for the others, or
// of float (values widened to double, the result rounded once to float),
// else any grid functions through their accessors.
template <class Variants> void BubblePointPressureIn(Variants, const TPVTOList& p_pvtoList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_RS,
                             GridFunctionPtr Pbub)
{
    CheckGridFunctionGiven("PVTNum", p_PVTNum);
    CheckGridFunctionGiven("RS", p_RS);
    CheckGridFunctionGiven("Pbub", Pbub);

    const std::uint64_t nElts = Pbub->number_of_elements();
    PRECONDITION(nElts == p_PVTNum->number_of_elements(), "Pbub and PVTNum should have the same number of elements.");
    PRECONDITION(nElts == p_RS->number_of_elements(), "Pbub and RS should have the same number of elements.");

    CalculateByRegion<FlatPbub, RegionTable>(Variants(), p_pvtoList, BubblePointAt, nElts, p_PVTNum,
                                             p_RS, Pbub);
}

// The calculation's own variants, and with the engine's.
void CalcBubblePointPressure(const TPVTOList& p_pvtoList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_RS, GridFunctionPtr Pbub)
{
    BubblePointPressureIn(ElementTypes<double, float>(), p_pvtoList, p_PVTNum, p_RS, Pbub);
}

void CalcBubblePointPressure(EngineVariants, const TPVTOList& p_pvtoList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_RS, GridFunctionPtr Pbub)
{
    BubblePointPressureIn(EngineVariants::Types(), p_pvtoList, p_PVTNum, p_RS, Pbub);
}

} // namespace kavra
