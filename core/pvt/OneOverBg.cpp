#include "core/pvt/OneOverBg.h"

#include "core/pvt/RegionCells.h"

#include <cmath>

#include "core/pvt/FlatTables.h"

namespace kavra {

namespace {

const double pressureTolerance = 0.0001;

double GasPressure(const TPVTG& row)
{
    return ScalarValue(row.Pg);
}

double OneOverBgAt(const TPVTGTable& pvt_table, double pg, double pdew, double rv)
{
    if (pressureTolerance > std::fabs(pg - pdew))
        return InterpolateOneOverBgSat(pvt_table, rv, pg);
    // Pg at or beyond either end of the table is not extrapolated in
    // pressure: it falls back to the saturated line.
    const std::size_t found = RowSearch(pvt_table, pg, GasPressure);
    if (found == pvt_table.size() || found == 0)
        return InterpolateOneOverBgSat(pvt_table, rv, pg);
    const double f1 = InterpolateOneOverBgRecords(pvt_table[found].under_sat, rv);
    const double f0 = InterpolateOneOverBgRecords(pvt_table[found - 1].under_sat, rv);
    const double P1 = GasPressure(pvt_table[found]);
    const double P0 = GasPressure(pvt_table[found - 1]);
    const double t = (P1 - pg) / (P1 - P0);
    return f1 - ((f1 - f0) * t);
}

// A wet-gas table flattened: its saturated line (rows by Pg, 1/Bg in Rv),
// the 1/Bg line of every row's records, and per row its Pg and the
// difference to the Pg of the row before.
struct FlatGas
{
    FlatLine<LineForm::Slope> saturated;
    std::vector<FlatLine<LineForm::Fraction>> records;
    std::vector<double> pressures;
    std::vector<double> steps; // pressures[r] - pressures[r - 1], for r >= 1

    double OneOverBg(double pg, double pdew, double rv) const
    {
        const std::size_t n = pressures.size();
        if (n == 1)
            return saturated.At(pg, rv);
        // The saturated line and the two-level case search the same keys
        // (the rows' Pg) with the same value.
        const std::size_t found = saturated.FindRow(pg);
        if (pressureTolerance > std::fabs(pg - pdew) || found == n || found == 0)
            return saturated.At(pg, rv);
        const double f1 = records[found].At(rv, rv);
        const double f0 = records[found - 1].At(rv, rv);
        const double t = (pressures[found] - pg) / steps[found];
        return f1 - ((f1 - f0) * t);
    }
};

std::optional<double> SaturatedField(const TPVTG& row, bool reciprocal)
{
    const TPVTGRecord* saturated = SaturatedPointOrNull(row);
    if (!saturated)
        return std::nullopt;
    return reciprocal ? Reciprocal(saturated->B) : Present(saturated->Rv);
}

bool Flatten(FlatGas& gas, const TPVTGTable& table)
{
    gas.pressures.resize(table.size());
    gas.steps.assign(table.size(), 0.0);
    for (std::size_t r = 0; r < table.size(); ++r) {
        if (!table[r].Pg)
            return false;
        gas.pressures[r] = table[r].Pg->value;
        if (r > 0)
            gas.steps[r] = gas.pressures[r] - gas.pressures[r - 1];
    }
    if (!gas.saturated.Build(
            table, [](const TPVTG& row) { return Present(row.Pg); },
            [](const TPVTG& row) { return SaturatedField(row, false); },
            [](const TPVTG& row) { return SaturatedField(row, true); }))
        return false;
    gas.records.resize(table.size());
    auto Rv = [](const TPVTGRecord& record) { return Present(record.Rv); };
    auto OneOverB = [](const TPVTGRecord& record) { return Reciprocal(record.B); };
    for (std::size_t r = 0; r < table.size(); ++r)
        if (!gas.records[r].Build(table[r].under_sat, Rv, Rv, OneOverB))
            return false;
    return true;
}

template <class Regions, class Values>
void OneOverBgCells(const TPVTGList& p_pvtg_list, Regions p_PVTNum, Values p_Pg, Values p_Pdew, Values p_Rv,
                    Values OneOverBg, std::uint64_t number_of_elements)
{
    const FlatRegions<FlatGas> flat(p_pvtg_list, Flatten);
    ForEachRegionRun(p_PVTNum, OneOverBg, number_of_elements,
                     [&](std::uint64_t pvtID, std::uint64_t begin, std::uint64_t end) {
        PRECONDITION(pvtID < p_pvtg_list.size(), (WrongRegion{pvtID, p_pvtg_list.size()}));
        const TPVTGTable& pvt_table = p_pvtg_list[pvtID];
        PRECONDITION(!pvt_table.empty(), "Empty PVT table!!");
        const FlatGas* gas = flat[pvtID];
        for (std::uint64_t h = begin; h < end; ++h) {
            const double pg = p_Pg.get(h);
            const double pdew = p_Pdew.get(h);
            const double rv = p_Rv.get(h);
            OneOverBg.set(h, gas ? gas->OneOverBg(pg, pdew, rv) : OneOverBgAt(pvt_table, pg, pdew, rv));
        }
    });
}

} // namespace

void CalcOneOverBg(const TPVTGList& p_pvtg_list, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pg,
                   GridFunctionPtr p_Pdew, GridFunctionPtr p_Rv, GridFunctionPtr OneOverBg)
{
    CheckGridFunctionGiven("PVTNum", p_PVTNum);
    CheckGridFunctionGiven("Pg", p_Pg);
    CheckGridFunctionGiven("Pdew", p_Pdew);
    CheckGridFunctionGiven("Rv", p_Rv);
    CheckGridFunctionGiven("OneOverBg", OneOverBg);

    // The count messages of this gas calculation name OneOverBo: scripts match on these texts.
    const std::uint64_t number_of_elements = OneOverBg->number_of_elements();
    PRECONDITION(number_of_elements == p_PVTNum->number_of_elements(),
                 "OneOverBo and PVTNum should have the same number of elements.");
    PRECONDITION(number_of_elements == p_Pg->number_of_elements(),
                 "OneOverBo and Pg should have the same number of elements.");
    PRECONDITION(number_of_elements == p_Pdew->number_of_elements(),
                 "OneOverBo and Pdew should have the same number of elements.");
    PRECONDITION(number_of_elements == p_Rv->number_of_elements(),
                 "OneOverBo and Rv should have the same number of elements.");

    DispatchGridFunctions(
        FloatVariant::Present,
        [&](auto regions, auto pg, auto pdew, auto rv, auto result) {
            OneOverBgCells(p_pvtg_list, regions, pg, pdew, rv, result, number_of_elements);
        },
        p_PVTNum, p_Pg, p_Pdew, p_Rv, OneOverBg);
}

} // namespace kavra
