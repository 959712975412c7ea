// Live oil: each PVTO record is a line of 1/B (and of 1/(B mu)) in pressure
// from its saturated point up.  A record without undersaturated rows takes
// those of the next record that has them, moved to its own bubble point:
// the pressures shifted by the difference of the bubble points, 1/B and
// 1/(B mu) scaled by the ratio of the saturated values.  Between two
// records the value at (P, Rs) is the mix, by the weight of Rs between
// their Rs, of each record's line read at the same distance above its own
// bubble point as P is above the mixed bubble point.  Outside the records'
// Rs, and outside each line, the values are extended linearly.
#include "core/blackoil/Oil.h"

#include "core/blackoil/Cells.h"

namespace kavra {
namespace {

using blackoil::Bracket;
using blackoil::BracketOf;
using blackoil::Curve;
using blackoil::Line;
using blackoil::Reciprocal;
using blackoil::ReciprocalBMu;
using blackoil::Values;

struct LiveOil
{
    std::vector<double> rs, pb; // the saturated line
    std::vector<Curve> curves;  // per record, in pressure
    Line saturatedRs, bubblePoint;

    explicit LiveOil(const TPVTOTable& table)
    {
        for (const TPVTO& record : table) {
            PRECONDITION(!record.under_sat.empty(), "A PVTO record has no saturated point.");
            rs.push_back(ScalarValue(record.Rs));
            pb.push_back(ScalarValue(record.under_sat[0].P));
            Curve curve;
            for (const TPVT& row : record.under_sat)
                curve.Add(ScalarValue(row.P), Reciprocal(row), ReciprocalBMu(row));
            curves.push_back(std::move(curve));
        }
        saturatedRs = Line{pb, rs};
        bubblePoint = Line{rs, pb};
        for (std::size_t r = 0; r < table.size(); ++r) {
            if (curves[r].Size() > 1)
                continue;
            const std::size_t j = blackoil::NextWithRows(table, r);
            if (j == table.size())
                break; // no record above has undersaturated rows: the lines stay flat
            const std::vector<TPVT>& rows = table[j].under_sat;
            Curve& curve = curves[r];
            const double shift = pb[r] - ScalarValue(rows[0].P);
            const double scaleB = curve.b.y[0] / Reciprocal(rows[0]), scaleBMu = curve.bmu[0] / ReciprocalBMu(rows[0]);
            for (std::size_t k = 1; k < rows.size(); ++k)
                curve.Add(ScalarValue(rows[k].P) + shift, Reciprocal(rows[k]) * scaleB,
                          ReciprocalBMu(rows[k]) * scaleBMu);
        }
    }
    bool Empty() const { return rs.empty(); }

    template <bool both>
    Values At(double p, double r) const
    {
        if (rs.size() == 1)
            return curves[0].At<both>(p);
        const Bracket at = BracketOf(rs, r);
        const double bubble = pb[at.i] + at.w * (pb[at.i + 1] - pb[at.i]);
        const Values low = curves[at.i].At<both>(p - bubble + pb[at.i]);
        const Values high = curves[at.i + 1].At<both>(p - bubble + pb[at.i + 1]);
        return Values{low.b + at.w * (high.b - low.b), low.bmu + at.w * (high.bmu - low.bmu)};
    }
};

struct DeadFluid
{
    Curve curve;
    explicit DeadFluid(const TPVTTable& table)
    {
        for (const TPVT& row : table)
            curve.Add(ScalarValue(row.P), Reciprocal(row), ReciprocalBMu(row));
    }
    bool Empty() const { return curve.Size() == 0; }
};

const auto LiveB = [](const LiveOil& oil, double p, double r) { return oil.At<false>(p, r).b; };
const auto LiveMu = [](const LiveOil& oil, double p, double r) {
    const Values v = oil.At<true>(p, r);
    return v.b / v.bmu;
};
const auto SaturatedRs = [](const LiveOil& oil, double p) { return oil.saturatedRs.At(p); };
const auto BubblePoint = [](const LiveOil& oil, double r) { return oil.bubblePoint.At(r); };
const auto DeadB = [](const DeadFluid& fluid, double p) { return fluid.curve.At<false>(p).b; };
const auto DeadMu = [](const DeadFluid& fluid, double p) {
    const Values v = fluid.curve.At<true>(p);
    return v.b / v.bmu;
};

} // namespace

KAVRA_BLACKOIL_ENTRIES(CalcLiveOilOneOverB, TPVTOList, LiveOil, LiveB, p, rs, result)
KAVRA_BLACKOIL_ENTRIES(CalcLiveOilViscosity, TPVTOList, LiveOil, LiveMu, p, rs, result)
KAVRA_BLACKOIL_ENTRIES(CalcSaturatedRs, TPVTOList, LiveOil, SaturatedRs, p, result)
KAVRA_BLACKOIL_ENTRIES(CalcBubblePoint, TPVTOList, LiveOil, BubblePoint, rs, result)
KAVRA_BLACKOIL_ENTRIES(CalcDeadFluidOneOverB, TPVTList, DeadFluid, DeadB, p, result)
KAVRA_BLACKOIL_ENTRIES(CalcDeadFluidViscosity, TPVTList, DeadFluid, DeadMu, p, result)

} // namespace kavra
