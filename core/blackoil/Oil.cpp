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
using blackoil::Line;

// 1/B and 1/(B mu) of a row (P, B, mu).
double Reciprocal(const TPVT& row) { return 1.0 / ScalarValue(row.B); }
double ReciprocalBMu(const TPVT& row) { return 1.0 / (ScalarValue(row.B) * ScalarValue(row.Mi)); }

struct LiveOil
{
    std::vector<double> rs, pb; // the saturated line
    std::vector<Line> b, bmu;   // per record, in pressure
    Line saturatedRs, bubblePoint;

    explicit LiveOil(const TPVTOTable& table)
    {
        for (const TPVTO& record : table) {
            PRECONDITION(!record.under_sat.empty(), "A PVTO record has no saturated point.");
            rs.push_back(ScalarValue(record.Rs));
            pb.push_back(ScalarValue(record.under_sat[0].P));
            Line lb, lbmu;
            for (const TPVT& row : record.under_sat) {
                lb.x.push_back(ScalarValue(row.P));
                lb.y.push_back(Reciprocal(row));
                lbmu.y.push_back(ReciprocalBMu(row));
            }
            lbmu.x = lb.x;
            b.push_back(std::move(lb));
            bmu.push_back(std::move(lbmu));
        }
        saturatedRs = Line{pb, rs};
        bubblePoint = Line{rs, pb};
        for (std::size_t r = 0; r < table.size(); ++r) {
            if (b[r].Size() > 1)
                continue;
            std::size_t j = r + 1;
            while (j < table.size() && table[j].under_sat.size() < 2)
                ++j;
            if (j == table.size())
                break; // no record above has undersaturated rows: the lines stay flat
            const std::vector<TPVT>& rows = table[j].under_sat;
            const double shift = pb[r] - ScalarValue(rows[0].P);
            const double scaleB = b[r].y[0] / Reciprocal(rows[0]), scaleBMu = bmu[r].y[0] / ReciprocalBMu(rows[0]);
            for (std::size_t k = 1; k < rows.size(); ++k) {
                const double p = ScalarValue(rows[k].P) + shift;
                b[r].x.push_back(p);
                bmu[r].x.push_back(p);
                b[r].y.push_back(Reciprocal(rows[k]) * scaleB);
                bmu[r].y.push_back(ReciprocalBMu(rows[k]) * scaleBMu);
            }
        }
    }
    bool Empty() const { return rs.empty(); }

    double At(const std::vector<Line>& lines, double p, double r) const
    {
        const Bracket at = BracketOf(rs, r);
        if (rs.size() == 1)
            return lines[0].At(p);
        const double bubble = pb[at.i] + at.w * (pb[at.i + 1] - pb[at.i]);
        const double low = lines[at.i].At(p - bubble + pb[at.i]);
        const double high = lines[at.i + 1].At(p - bubble + pb[at.i + 1]);
        return low + at.w * (high - low);
    }
};

struct DeadFluid
{
    Line b, bmu;
    explicit DeadFluid(const TPVTTable& table)
    {
        for (const TPVT& row : table) {
            b.x.push_back(ScalarValue(row.P));
            b.y.push_back(Reciprocal(row));
            bmu.y.push_back(ReciprocalBMu(row));
        }
        bmu.x = b.x;
    }
    bool Empty() const { return b.Size() == 0; }
};

const auto LiveB = [](const LiveOil& oil, double p, double r) { return oil.At(oil.b, p, r); };
const auto LiveMu = [](const LiveOil& oil, double p, double r) { return oil.At(oil.b, p, r) / oil.At(oil.bmu, p, r); };
const auto SaturatedRs = [](const LiveOil& oil, double p) { return oil.saturatedRs.At(p); };
const auto BubblePoint = [](const LiveOil& oil, double r) { return oil.bubblePoint.At(r); };
const auto DeadB = [](const DeadFluid& fluid, double p) { return fluid.b.At(p); };
const auto DeadMu = [](const DeadFluid& fluid, double p) { return fluid.b.At(p) / fluid.bmu.At(p); };

} // namespace

KAVRA_BLACKOIL_ENTRIES(CalcLiveOilOneOverB, TPVTOList, LiveOil, LiveB, p, rs, result)
KAVRA_BLACKOIL_ENTRIES(CalcLiveOilViscosity, TPVTOList, LiveOil, LiveMu, p, rs, result)
KAVRA_BLACKOIL_ENTRIES(CalcSaturatedRs, TPVTOList, LiveOil, SaturatedRs, p, result)
KAVRA_BLACKOIL_ENTRIES(CalcBubblePoint, TPVTOList, LiveOil, BubblePoint, rs, result)
KAVRA_BLACKOIL_ENTRIES(CalcDeadFluidOneOverB, TPVTList, DeadFluid, DeadB, p, result)
KAVRA_BLACKOIL_ENTRIES(CalcDeadFluidViscosity, TPVTList, DeadFluid, DeadMu, p, result)

} // namespace kavra
