#include "core/pvt/OneOverBw.h"

#include "core/pvt/RegionCells.h"

#include <vector>

namespace kavra {

namespace {

// The exponential of x cut after its second-order term, in this grouping.
double OneOverBwAt(double pw, double P_ref, double Cw, double Bw_ref)
{
    const double x = (pw - P_ref) * Cw;
    const double numerator = ((x * 0.5) * x) + (x + 1.0);
    return numerator / Bw_ref;
}

// The three numbers of a region, read once per call when all are set.
struct FlatWater
{
    double P_ref, Cw, Bw_ref;
};

template <class Regions, class Values>
void OneOverBwCells(const TPVTWList& pvtwList, Regions p_PVTNum, Values p_Pw, Values OneOverBw, std::uint64_t nElts)
{
    std::vector<FlatWater> flat(pvtwList.size());
    std::vector<char> ready(pvtwList.size(), 0);
    for (std::size_t r = 0; r < pvtwList.size(); ++r) {
        const TPVTW& pvtw = pvtwList[r];
        if (pvtw.P_ref && pvtw.Cw && pvtw.Bw_ref) {
            flat[r] = FlatWater{pvtw.P_ref->value, pvtw.Cw->value, pvtw.Bw_ref->value};
            ready[r] = 1;
        }
    }
    ForEachRegionRun(p_PVTNum, OneOverBw, nElts, [&](std::uint64_t pvtID, std::uint64_t begin, std::uint64_t end) {
        PRECONDITION(pvtID<pvtwList.size(), (WrongRegion{pvtID, pvtwList.size()}));
        if (ready[pvtID]) {
            const FlatWater w = flat[pvtID];
            for (std::uint64_t h = begin; h < end; ++h)
                OneOverBw.set(h, OneOverBwAt(p_Pw.get(h), w.P_ref, w.Cw, w.Bw_ref));
        } else {
            const TPVTW& pvtw = pvtwList[pvtID];
            for (std::uint64_t h = begin; h < end; ++h) {
                const double pw = p_Pw.get(h);
                OneOverBw.set(h, OneOverBwAt(pw, ScalarValue(pvtw.P_ref), ScalarValue(pvtw.Cw), ScalarValue(pvtw.Bw_ref)));
            }
        }
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
