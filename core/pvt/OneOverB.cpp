#include "core/pvt/OneOverB.h"

#include "core/pvt/RegionCells.h"

#include "core/pvt/FlatTables.h"

namespace kavra {

namespace {

typedef FlatLine<LineForm::Slope> FlatB;

bool Flatten(FlatB& line, const TPVTTable& table)
{
    auto P = [](const TPVT& row) { return Present(row.P); };
    return line.Build(table, P, P, [](const TPVT& row) { return Present(row.B); });
}

template <class Regions, class Values>
void OneOverBCells(const TPVTList& pvtList, Regions p_PVTNum, Values p_P, Values OneOverB, std::uint64_t nElts)
{
    const FlatRegions<FlatB> flat(pvtList, Flatten);
    ForEachRegionRun(p_PVTNum, OneOverB, nElts, [&](std::uint64_t pvtID, std::uint64_t begin, std::uint64_t end) {
        PRECONDITION(pvtID<pvtList.size(), (WrongRegion{pvtID, pvtList.size()}));
        const TPVTTable& pvt_table = pvtList[pvtID];
        PRECONDITION(!pvt_table.empty(), "Empty PVT table!!");
        const FlatB* line = flat[pvtID];
        for (std::uint64_t h = begin; h < end; ++h) {
            const double p = p_P.get(h);
            OneOverB.set(h, 1.0 / (line ? line->At(p, p) : InterpolateB(pvt_table, p)));
        }
    });
}

} // namespace

void CalcOneOverB(const TPVTList& pvtList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_P, GridFunctionPtr OneOverB)
{
    CheckGridFunctionGiven("PVTNum", p_PVTNum);
    CheckGridFunctionGiven("P", p_P);
    CheckGridFunctionGiven("OneOverB", OneOverB);

    const std::uint64_t nElts = OneOverB->number_of_elements();
    PRECONDITION(nElts == p_PVTNum->number_of_elements(), "OneOverB and PVTNum should have the same number of elements.");
    PRECONDITION(nElts == p_P->number_of_elements(), "OneOverB and P should have the same number of elements.");

    DispatchGridFunctions(
        FloatVariant::Absent,
        [&](auto regions, auto pressure, auto result) { OneOverBCells(pvtList, regions, pressure, result, nElts); },
        p_PVTNum, p_P, OneOverB);
}

} // namespace kavra
