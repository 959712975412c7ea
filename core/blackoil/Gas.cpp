// Wet gas: each PVTG record (one gas pressure) is a line of 1/B (and of
// 1/(B mu)) in Rv, from its lowest Rv up to its saturated point.  A record
// without undersaturated rows takes those of the next record that has them,
// moved to its own saturated Rv: the Rv shifted by the difference of the
// saturated Rv, 1/B and 1/(B mu) scaled by the ratio of the saturated
// values, down to Rv = 0 (a row that would fall below 0 is replaced by the
// point at 0 on the line to it).  Between two records the value at (P, Rv)
// is the mix, by the weight of P between their pressures, of each record's
// line read at the same fraction of its own span of Rv as Rv is of the
// mixed span.  Outside the records' pressures, and outside each line, the
// values are extended linearly.
#include "core/blackoil/Gas.h"

#include <algorithm>

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

struct WetGas
{
    std::vector<double> pg, rvSat;
    std::vector<Curve> curves; // per record, in Rv (rising)
    Line saturatedRv;

    explicit WetGas(const TPVTGTable& table)
    {
        for (const TPVTG& record : table) {
            PRECONDITION(!record.under_sat.empty(), "A PVTG record has no saturated point.");
            pg.push_back(ScalarValue(record.Pg));
            rvSat.push_back(ScalarValue(record.under_sat[0].Rv));
        }
        saturatedRv = Line{pg, rvSat};
        for (std::size_t r = 0; r < table.size(); ++r) {
            // The rows from the saturated point down, then put in rising Rv.
            std::vector<double> x, yb, ybmu;
            for (const TPVTGRecord& row : table[r].under_sat) {
                x.push_back(ScalarValue(row.Rv));
                yb.push_back(Reciprocal(row));
                ybmu.push_back(ReciprocalBMu(row));
            }
            const std::size_t j = x.size() == 1 ? blackoil::NextWithRows(table, r) : table.size();
            if (j < table.size()) {
                const TPVTGRecordTable& rows = table[j].under_sat;
                const double shift = rvSat[r] - ScalarValue(rows[0].Rv);
                const double scaleB = yb[0] / Reciprocal(rows[0]), scaleBMu = ybmu[0] / ReciprocalBMu(rows[0]);
                for (std::size_t k = 1; k < rows.size(); ++k) {
                    const double rv = ScalarValue(rows[k].Rv) + shift;
                    const double vb = Reciprocal(rows[k]) * scaleB, vbmu = ReciprocalBMu(rows[k]) * scaleBMu;
                    if (x.back() <= 0.0)
                        break; // already down to Rv = 0
                    if (rv > 0.0) {
                        x.push_back(rv);
                        yb.push_back(vb);
                        ybmu.push_back(vbmu);
                        continue;
                    }
                    const double t = (0.0 - x.back()) / (rv - x.back());
                    yb.push_back(yb.back() + t * (vb - yb.back()));
                    ybmu.push_back(ybmu.back() + t * (vbmu - ybmu.back()));
                    x.push_back(0.0);
                    break;
                }
            }
            Curve curve;
            for (std::size_t k = x.size(); k-- > 0;)
                curve.Add(x[k], yb[k], ybmu[k]);
            curves.push_back(std::move(curve));
        }
    }
    bool Empty() const { return pg.empty(); }

    template <bool both>
    Values At(double p, double rv) const
    {
        if (pg.size() == 1)
            return curves[0].At<both>(rv);
        const Bracket at = BracketOf(pg, p);
        const Curve& c0 = curves[at.i];
        const Curve& c1 = curves[at.i + 1];
        const double low0 = c0.b.x.front(), span0 = c0.b.x.back() - low0;
        const double low1 = c1.b.x.front(), span1 = c1.b.x.back() - low1;
        const double low = low0 + at.w * (low1 - low0);
        const double span = span0 + at.w * (span1 - span0);
        const double fraction = span > 0.0 ? (rv - low) / span : 0.0;
        const Values v0 = c0.At<both>(low0 + fraction * span0);
        const Values v1 = c1.At<both>(low1 + fraction * span1);
        return Values{v0.b + at.w * (v1.b - v0.b), v0.bmu + at.w * (v1.bmu - v0.bmu)};
    }

    // The first segment of the saturated line, in rising pressure, whose Rv
    // reach `rv`; past them all, the line extended from the end nearer in Rv.
    double DewPoint(double rv) const
    {
        if (pg.size() == 1)
            return pg[0];
        for (std::size_t i = 0; i + 1 < pg.size(); ++i) {
            const double r0 = rvSat[i], r1 = rvSat[i + 1];
            if (r0 != r1 && std::min(r0, r1) <= rv && rv <= std::max(r0, r1))
                return pg[i] + (rv - r0) * ((pg[i + 1] - pg[i]) / (r1 - r0));
        }
        std::size_t i = rv < *std::min_element(rvSat.begin(), rvSat.end()) ? 0 : pg.size() - 2;
        while (i + 2 < pg.size() && rvSat[i] == rvSat[i + 1])
            ++i;
        while (i > 0 && rvSat[i] == rvSat[i + 1])
            --i;
        if (rvSat[i] == rvSat[i + 1])
            return pg[i];
        return pg[i] + (rv - rvSat[i]) * ((pg[i + 1] - pg[i]) / (rvSat[i + 1] - rvSat[i]));
    }
};

const auto WetB = [](const WetGas& gas, double p, double rv) { return gas.At<false>(p, rv).b; };
const auto WetMu = [](const WetGas& gas, double p, double rv) {
    const Values v = gas.At<true>(p, rv);
    return v.b / v.bmu;
};
const auto SaturatedRv = [](const WetGas& gas, double p) { return gas.saturatedRv.At(p); };
const auto DewPoint = [](const WetGas& gas, double rv) { return gas.DewPoint(rv); };

} // namespace

KAVRA_BLACKOIL_ENTRIES(CalcWetGasOneOverB, TPVTGList, WetGas, WetB, p, rv, result)
KAVRA_BLACKOIL_ENTRIES(CalcWetGasViscosity, TPVTGList, WetGas, WetMu, p, rv, result)
KAVRA_BLACKOIL_ENTRIES(CalcSaturatedRv, TPVTGList, WetGas, SaturatedRv, p, result)
KAVRA_BLACKOIL_ENTRIES(CalcDewPoint, TPVTGList, WetGas, DewPoint, rv, result)

} // namespace kavra
