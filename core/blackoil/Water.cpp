// Water and rock: closed formulas on one record per region, the exponential
// of x cut after its second-order term, 1 + x + x^2/2:
//   1/Bw          = (1 + x + x^2/2) / Bw_ref,            x = Cw (P - P_ref)
//   1/(Bw mu_w)   = (1 + y + y^2/2) / (Bw_ref mu_ref),   y = (Cw - Cv) (P - P_ref)
//   pore volume multiplier = 1 + z + z^2/2,              z = Cr (P - P_ref)
#include "core/blackoil/Water.h"

#include "core/blackoil/Cells.h"

namespace kavra {
namespace {

double Expansion(double x) { return 1.0 + x + 0.5 * x * x; }

struct Water
{
    double pRef, bRef, cw, muRef, cv;
    explicit Water(const TPVTW& w)
        : pRef(ScalarValue(w.P_ref)), bRef(ScalarValue(w.Bw_ref)), cw(ScalarValue(w.Cw)),
          muRef(ScalarValue(w.Miw_ref)), cv(ScalarValue(w.Cvw))
    {
    }
    bool Empty() const { return false; }
    double B(double p) const { return Expansion(cw * (p - pRef)) / bRef; }
    double BMu(double p) const { return Expansion((cw - cv) * (p - pRef)) / (bRef * muRef); }
};

struct Rock
{
    double pRef, cr;
    explicit Rock(const TRock& r) : pRef(ScalarValue(r.P_ref)), cr(ScalarValue(r.Cr)) {}
    bool Empty() const { return false; }
};

const auto WaterB = [](const Water& w, double p) { return w.B(p); };
const auto WaterMu = [](const Water& w, double p) { return w.B(p) / w.BMu(p); };
const auto Multiplier = [](const Rock& r, double p) { return Expansion(r.cr * (p - r.pRef)); };

} // namespace

KAVRA_BLACKOIL_ENTRIES(CalcWaterOneOverB, TPVTWList, Water, WaterB, p, result)
KAVRA_BLACKOIL_ENTRIES(CalcWaterViscosity, TPVTWList, Water, WaterMu, p, result)
KAVRA_BLACKOIL_ENTRIES(CalcPoreVolumeMultiplier, TRockList, Rock, Multiplier, p, result)

void CalcDensityFromB(GridFunctionPtr b, GridFunctionPtr r, GridFunctionPtr own, GridFunctionPtr other,
                      GridFunctionPtr result)
{
    const GridFunctionPtr all[] = {b, r, own, other, result};
    for (const GridFunctionPtr& g : all)
        CheckGridFunctionGiven("argument", g);
    const std::uint64_t n = result->number_of_elements();
    for (const GridFunctionPtr& g : all)
        PRECONDITION(n == g->number_of_elements(), "The result and every input should have the same number of elements.");
    DispatchGridFunctions(
        ElementTypes<double>(),
        [&](auto vb, auto vr, auto vown, auto vother, auto out) {
            for (std::uint64_t h = 0; h < n; ++h)
                out.set(h, vb.get(h) * (vown.get(h) + vr.get(h) * vother.get(h)));
        },
        b, r, own, other, result);
}

} // namespace kavra
