#include "core/pvt/BubblePointPressure.h"

#include "core/pvt/RegionCells.h"

#include "core/pvt/FlatTables.h"

namespace kavra {

namespace {

typedef FlatLine<LineForm::Slope> FlatPbub;

bool Flatten(FlatPbub& line, const TPVTOTable& table)
{
    auto Rs = [](const TPVTO& row) { return Present(row.Rs); };
    return line.Build(table, Rs, Rs, [](const TPVTO& row) {
        const TPVT* saturated = SaturatedPointOrNull(row);
        return saturated ? Present(saturated->P) : std::nullopt;
    });
}

template <class Regions, class Values>
void BubblePointCells(const TPVTOList& p_pvtoList, Regions p_PVTNum, Values p_RS, Values Pbub, std::uint64_t nElts)
{
    const FlatRegions<FlatPbub> flat(p_pvtoList, Flatten);
    ForEachRegionRun(p_PVTNum, Pbub, nElts, [&](std::uint64_t pvtID, std::uint64_t begin, std::uint64_t end) {
        PRECONDITION(pvtID<p_pvtoList.size(), (WrongRegion{pvtID, p_pvtoList.size()}));
        const TPVTOTable& pvto_table = p_pvtoList[pvtID];
        PRECONDITION(!pvto_table.empty(), "Empty PVTO table!!");
        const FlatPbub* line = flat[pvtID];
        for (std::uint64_t h = begin; h < end; ++h) {
            const double rs = p_RS.get(h);
            Pbub.set(h, line ? line->At(rs, rs) : InterpolatePbub(pvto_table, rs));
        }
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
