#include "core/pvt/OneOverBg.h"

#include "core/pvt/RegionCells.h"

#include <cmath>

#include "core/pvt/Interpolation.h"

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

template <class Regions, class Values>
void OneOverBgCells(const TPVTGList& p_pvtg_list, Regions p_PVTNum, Values p_Pg, Values p_Pdew, Values p_Rv,
                    Values OneOverBg, std::uint64_t number_of_elements)
{
    ForEachRegionCell(p_PVTNum, OneOverBg, number_of_elements, [&](std::uint64_t h, std::uint64_t pvtID) {
        PRECONDITION(pvtID < p_pvtg_list.size(), (WrongRegion{pvtID, p_pvtg_list.size()}));
        const TPVTGTable& pvt_table = p_pvtg_list[pvtID];
        PRECONDITION(!pvt_table.empty(), "Empty PVT table!!");
        return OneOverBgAt(pvt_table, p_Pg.get(h), p_Pdew.get(h), p_Rv.get(h));
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
