#include "core/pvt/OneOverBw.h"

#include "core/pvt/RegionCells.h"

namespace kavra {

namespace {

template <class Regions, class Values>
void OneOverBwCells(const TPVTWList& pvtwList, Regions p_PVTNum, Values p_Pw, Values OneOverBw, std::uint64_t nElts)
{
    ForEachRegionCell(p_PVTNum, OneOverBw, nElts, [&](std::uint64_t h, std::uint64_t pvtID) {
        PRECONDITION(pvtID<pvtwList.size(), (WrongRegion{pvtID, pvtwList.size()}));
        const TPVTW& pvtw = pvtwList[pvtID];
        const double pw = p_Pw.get(h);
        // The exponential of x cut after its second-order term, in this grouping.
        const double x = (pw - ScalarValue(pvtw.P_ref)) * ScalarValue(pvtw.Cw);
        const double numerator = ((x * 0.5) * x) + (x + 1.0);
        return numerator / ScalarValue(pvtw.Bw_ref);
    });
}

} // namespace

void CalcOneOverBw(const TPVTWList& pvtwList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pw, GridFunctionPtr OneOverBw)
{
    CheckGridFunctionGiven("PVTNum", p_PVTNum);
    CheckGridFunctionGiven("Pw", p_Pw);
    CheckGridFunctionGiven("OneOverBw", OneOverBw);

    const std::uint64_t nElts = OneOverBw->number_of_elements();
    PRECONDITION(nElts == p_PVTNum->number_of_elements(), "OneOverBw and PVTNum should have the same number of elements.");
    PRECONDITION(nElts == p_Pw->number_of_elements(), "OneOverBw and Pw should have the same number of elements.");

    DispatchGridFunctions(
        FloatVariant::Absent,
        [&](auto regions, auto pw, auto result) { OneOverBwCells(pvtwList, regions, pw, result, nElts); }, p_PVTNum,
        p_Pw, OneOverBw);
}

} // namespace kavra
