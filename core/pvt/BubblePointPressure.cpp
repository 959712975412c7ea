#include "core/pvt/BubblePointPressure.h"

#include "core/pvt/RegionCells.h"

#include "core/pvt/Interpolation.h"

namespace kavra {

namespace {

template <class Regions, class Values>
void BubblePointCells(const TPVTOList& p_pvtoList, Regions p_PVTNum, Values p_RS, Values Pbub, std::uint64_t nElts)
{
    ForEachRegionCell(p_PVTNum, Pbub, nElts, [&](std::uint64_t h, std::uint64_t pvtID) {
        PRECONDITION(pvtID<p_pvtoList.size(), (WrongRegion{pvtID, p_pvtoList.size()}));
        const TPVTOTable& pvto_table = p_pvtoList[pvtID];
        PRECONDITION(!pvto_table.empty(), "Empty PVTO table!!");
        return InterpolatePbub(pvto_table, p_RS.get(h));
    });
}

} // namespace

void CalcBubblePointPressure(const TPVTOList& p_pvtoList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_RS,
                             GridFunctionPtr Pbub)
{
    CheckGridFunctionGiven("PVTNum", p_PVTNum);
    CheckGridFunctionGiven("RS", p_RS);
    CheckGridFunctionGiven("Pbub", Pbub);

    const std::uint64_t nElts = Pbub->number_of_elements();
    PRECONDITION(nElts == p_PVTNum->number_of_elements(), "Pbub and PVTNum should have the same number of elements.");
    PRECONDITION(nElts == p_RS->number_of_elements(), "Pbub and RS should have the same number of elements.");

    DispatchGridFunctions(
        FloatVariant::Present,
        [&](auto regions, auto rs, auto result) { BubblePointCells(p_pvtoList, regions, rs, result, nElts); },
        p_PVTNum, p_RS, Pbub);
}

} // namespace kavra
