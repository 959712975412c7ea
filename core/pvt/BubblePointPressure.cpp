#include "core/pvt/BubblePointPressure.h"

#include "core/pvt/Interpolation.h"

namespace kavra {

namespace {

template <class Regions, class Values>
void BubblePointCells(const TPVTOList& p_pvtoList, Regions p_PVTNum, Values p_RS, Values Pbub, std::uint64_t nElts)
{
    for (std::uint64_t h = 0; h < nElts; ++h) {
        const int region = p_PVTNum.get(h);
        if (region < 1) {
            Pbub.set(h, 0.0);
            continue;
        }
        const std::uint64_t pvtID = static_cast<std::uint64_t>(region) - 1;
        PRECONDITION(pvtID<p_pvtoList.size(),
                     "Wrong PVT region number: " << pvtID << ", valid interval [0, " << p_pvtoList.size() - 1 << "].");
        const TPVTOTable& pvto_table = p_pvtoList[pvtID];
        PRECONDITION(!pvto_table.empty(), "Empty PVTO table!!");
        Pbub.set(h, InterpolatePbub(pvto_table, p_RS.get(h)));
    }
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
