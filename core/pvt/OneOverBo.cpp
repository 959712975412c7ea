#include "core/pvt/OneOverBo.h"

#include "core/pvt/RegionCells.h"

#include <cmath>

#include "core/pvt/FlatTables.h"

namespace kavra {

namespace {

const double pressureTolerance = 0.0001;

double SaturatedPressure(const TPVTO& row)
{
    return ScalarValue(SaturatedPoint(row).P);
}

// Bo above (or below) the bubble point: the undersaturated rows of a
// single table row, the upper row of the bracket around Pbub, as they
// stand: no blending between rows.
double UndersaturatedBo(const TPVTOTable& pvt_table, double po, double pbub)
{
    std::size_t row = 0;
    if (pvt_table.size() > 1)
        row = BracketUpper(RowSearch(pvt_table, pbub, SaturatedPressure), pvt_table.size());
    return InterpolateB(pvt_table[row].under_sat, po);
}

// Bo read from the table itself, for tables that could not be flattened.
double TableBo(const TPVTOTable& pvt_table, double po, double pbub)
{
    if (pressureTolerance > std::fabs(po - pbub))
        return InterpolateBoSat(pvt_table, po);
    return UndersaturatedBo(pvt_table, po, pbub);
}

// A live-oil table flattened: its saturated line (searched by pressure)
// and the undersaturated line of every row.
struct FlatOil
{
    FlatLine<LineForm::Slope> saturated;
    std::vector<FlatLine<LineForm::Slope>> undersaturated;

    double Bo(double po, double pbub) const
    {
        if (pressureTolerance > std::fabs(po - pbub))
            return saturated.At(po, po);
        const std::size_t n = undersaturated.size();
        const std::size_t row = n > 1 ? BracketUpper(saturated.FindRow(pbub), n) : 0;
        return undersaturated[row].At(po, po);
    }
};

std::optional<double> SaturatedField(const TPVTO& row, TScalarPtr TPVT::*field)
{
    const TPVT* saturated = SaturatedPointOrNull(row);
    return saturated ? Present(saturated->*field) : std::nullopt;
}

bool Flatten(FlatOil& oil, const TPVTOTable& table)
{
    auto P = [](const TPVTO& row) { return SaturatedField(row, &TPVT::P); };
    if (!oil.saturated.Build(table, P, P, [](const TPVTO& row) { return SaturatedField(row, &TPVT::B); }))
        return false;
    oil.undersaturated.resize(table.size());
    auto rowP = [](const TPVT& point) { return Present(point.P); };
    auto rowB = [](const TPVT& point) { return Present(point.B); };
    for (std::size_t r = 0; r < table.size(); ++r)
        if (!oil.undersaturated[r].Build(table[r].under_sat, rowP, rowP, rowB))
            return false;
    return true;
}

template <class Regions, class Values>
void OneOverBoCells(const TPVTOList& pvtoList, Regions PVTNum, Values Po, Values Pbub, Values OneOverBo,
                    std::uint64_t nElts)
{
    const FlatRegions<FlatOil> flat(pvtoList, Flatten);
    ForEachRegionRun(PVTNum, OneOverBo, nElts, [&](std::uint64_t pvtID, std::uint64_t begin, std::uint64_t end) {
        PRECONDITION(pvtID<pvtoList.size(), (WrongRegion{pvtID, pvtoList.size()}));
        const TPVTOTable& pvt_table = pvtoList[pvtID];
        PRECONDITION(!pvt_table.empty(), "Empty PVT table!!");
        const FlatOil* oil = flat[pvtID];
        for (std::uint64_t h = begin; h < end; ++h) {
            const double po = Po.get(h);
            const double pbub = Pbub.get(h);
            OneOverBo.set(h, 1.0 / (oil ? oil->Bo(po, pbub) : TableBo(pvt_table, po, pbub)));
        }
    });
}

} // namespace

void CalcOneOverBo(const TPVTOList& pvtoList, GridFunctionPtr PVTNum, GridFunctionPtr Po, GridFunctionPtr Pbub,
                   GridFunctionPtr OneOverBo)
{
    CheckGridFunctionGiven("PVTNum", PVTNum);
    CheckGridFunctionGiven("Po", Po);
    CheckGridFunctionGiven("Pbub", Pbub);
    CheckGridFunctionGiven("OneOverBo", OneOverBo);

    const std::uint64_t nElts = OneOverBo->number_of_elements();
    PRECONDITION(nElts == PVTNum->number_of_elements(), "OneOverBo and PVTNum should have the same number of elements.");
    PRECONDITION(nElts == Po->number_of_elements(), "OneOverBo and Po should have the same number of elements.");
    PRECONDITION(nElts == Pbub->number_of_elements(), "OneOverBo and Pbub should have the same number of elements.");

    DispatchGridFunctions(
        FloatVariant::Present,
        [&](auto regions, auto po, auto pbub, auto result) {
            OneOverBoCells(pvtoList, regions, po, pbub, result, nElts);
        },
        PVTNum, Po, Pbub, OneOverBo);
}

} // namespace kavra
