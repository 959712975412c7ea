#include "core/equil/Equil.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/utils/ParallelFor.h"

namespace kavra {
namespace equil {
namespace {

// The segment [i, i + 1] of rising nodes x (two or more) that serves `at`:
// the first below x[1], the last from x[n - 2] up.
std::size_t Segment(const std::vector<double>& x, double at)
{
    std::size_t lo = 0, hi = x.size() - 1;
    while (hi - lo > 1) {
        const std::size_t mid = (lo + hi) / 2;
        (at >= x[mid] ? lo : hi) = mid;
    }
    return lo;
}

double Linear(const std::vector<double>& x, const std::vector<double>& y, double at)
{
    if (x.size() == 1)
        return y[0];
    const std::size_t i = Segment(x, at);
    return y[i] + (at - x[i]) * ((y[i + 1] - y[i]) / (x[i + 1] - x[i]));
}

// One way of the integration: the nodes after (z0, p0), in the order met.
void Way(double z0, double p0, double end, int steps, double gravity, const Density& density,
         std::vector<double>& z, std::vector<double>& p)
{
    if (end == z0 || steps < 1)
        return;
    const double h = (end - z0) / steps;
    double zi = z0, pi = p0;
    for (int i = 0; i < steps; ++i) {
        const double k1 = gravity * density(zi, pi);
        const double k2 = gravity * density(zi + 0.5 * h, pi + 0.5 * h * k1);
        const double k3 = gravity * density(zi + 0.5 * h, pi + 0.5 * h * k2);
        const double k4 = gravity * density(zi + h, pi + h * k3);
        pi = pi + h / 6.0 * (k1 + 2.0 * k2 + 2.0 * k3 + k4);
        zi = z0 + (i + 1) * h;
        z.push_back(zi);
        p.push_back(pi);
    }
}

// The value of a phase's pressure at a contact, from the curve of the phase
// across it: a curve of Hydrostatic from z0 over [lo, hi] in `steps` steps
// each way.  The simulator places the contact on the way towards it by its
// distance from z0 over the way's step, in metres (`metres` per unit of the
// depths); where that quotient reaches `steps` (a contact at the end of the
// way, the quotient rounding to `steps` or above it) its output shows the
// pressure of the node one step short of the end, else the curve's.  So a
// contact far beyond the cells, at the end of the region's span, starts the
// next phase one step's pressure off the contact (with 2000 steps a few
// thousandths of a bar over tens of metres), at some datums and not others.
double Across(const PressureCurve& curve, double z0, double lo, double hi, int steps, double metres, double contact)
{
    const double end = contact > z0 ? hi : lo;
    if (contact == z0 || end == z0 || steps < 1)
        return curve.At(contact);
    const double h = (end * metres - z0 * metres) / steps;
    if (!((contact * metres - z0 * metres) / h >= steps)) // NaN too
        return curve.At(contact);
    // the nodes: `steps` up (from lo), z0, `steps` down (to hi)
    const long long origin = lo < z0 ? steps : 0;
    const long long node = contact > z0 ? origin + steps - 1 : origin - (steps - 1);
    if (node < 0 || node >= static_cast<long long>(curve.pressure.size()))
        return curve.At(contact);
    return curve.pressure[static_cast<std::size_t>(node)];
}

} // namespace

double PressureCurve::At(double z) const { return Linear(depth, pressure, z); }

PressureCurve Hydrostatic(double z0, double p0, double top, double bottom, int steps, double gravity,
                          const Density& density)
{
    std::vector<double> upZ, upP, downZ, downP;
    Way(z0, p0, std::min(top, z0), steps, gravity, density, upZ, upP);
    Way(z0, p0, std::max(bottom, z0), steps, gravity, density, downZ, downP);
    PressureCurve curve;
    curve.depth.assign(upZ.rbegin(), upZ.rend());
    curve.pressure.assign(upP.rbegin(), upP.rend());
    curve.depth.push_back(z0);
    curve.pressure.push_back(p0);
    curve.depth.insert(curve.depth.end(), downZ.begin(), downZ.end());
    curve.pressure.insert(curve.pressure.end(), downP.begin(), downP.end());
    return curve;
}

RegionCurves PhasePressures(const Contacts& c, const Phases& phases, double top, double bottom, int steps,
                            double gravity, const Density& oil, const Density& water, const Density& gas,
                            double metres)
{
    // The curves span the cells, the datum and the contacts that tie the phases together.
    double lo = std::min(top, c.datum), hi = std::max(bottom, c.datum);
    if (phases.water) {
        lo = std::min(lo, c.owc);
        hi = std::max(hi, c.owc);
    }
    if (phases.oil && phases.gas) {
        lo = std::min(lo, c.goc);
        hi = std::max(hi, c.goc);
    }
    const auto curve = [&](double z0, double p0, const Density& density) {
        return Hydrostatic(z0, p0, lo, hi, steps, gravity, density);
    };
    // where the oil curve starts (the others read at a contact start at the datum)
    double fromOil = c.datum;
    const auto across = [&](const PressureCurve& from, double z0, double contact) {
        return Across(from, z0, lo, hi, steps, metres, contact);
    };
    RegionCurves r;
    r.owc = c.owc;
    r.goc = c.goc;
    if (!phases.oil) { // gas and water: the oil-water contact item is the gas-water contact
        if (phases.water && c.datum > c.owc) {
            r.water = curve(c.datum, c.datumPressure, water);
            if (phases.gas)
                r.gas = curve(c.owc, across(r.water, c.datum, c.owc) + c.pcOwc, gas);
        } else if (phases.gas) {
            r.gas = curve(c.datum, c.datumPressure, gas);
            if (phases.water)
                r.water = curve(c.owc, across(r.gas, c.datum, c.owc) - c.pcOwc, water);
        } else if (phases.water) {
            r.water = curve(c.datum, c.datumPressure, water);
        }
        return r;
    }
    const bool inWater = phases.water && c.datum > c.owc;
    const bool inGas = phases.gas && c.datum < c.goc;
    if (inWater) {
        r.water = curve(c.datum, c.datumPressure, water);
        r.oil = curve(fromOil = c.owc, across(r.water, c.datum, c.owc) + c.pcOwc, oil);
    } else if (inGas) {
        r.gas = curve(c.datum, c.datumPressure, gas);
        r.oil = curve(fromOil = c.goc, across(r.gas, c.datum, c.goc) - c.pcGoc, oil);
    } else {
        r.oil = curve(c.datum, c.datumPressure, oil);
    }
    if (phases.water && r.water.Empty())
        r.water = curve(c.owc, across(r.oil, fromOil, c.owc) - c.pcOwc, water);
    if (phases.gas && r.gas.Empty())
        r.gas = curve(c.goc, across(r.oil, fromOil, c.goc) + c.pcGoc, gas);
    return r;
}

bool CapillaryCurve::Level() const
{
    return !pc.empty() && std::all_of(pc.begin(), pc.end(), [&](double v) { return v == pc.front(); });
}

double CapillaryCurve::Invert(double value, bool falling) const
{
    const std::size_t n = saturation.size();
    // Walk the curve in the direction of rising Pc.
    const auto s = [&](std::size_t k) { return saturation[falling ? n - 1 - k : k]; };
    const auto v = [&](std::size_t k) { return pc[falling ? n - 1 - k : k]; };
    if (std::isnan(value))
        return value;
    if (n == 1 || value <= v(0))
        return s(0);
    if (value >= v(n - 1))
        return s(n - 1);
    std::size_t k = 0; // a segment that crosses `value` exists; NaN in the curve ends at the last
    while (k + 2 < n && !(v(k) <= value && value < v(k + 1)))
        ++k;
    return s(k) + (value - v(k)) / (v(k + 1) - v(k)) * (s(k + 1) - s(k));
}

namespace {

double PcAt(const CapillaryCurve& curve, double s)
{
    return curve.Empty() ? 0.0 : Linear(curve.saturation, curve.pc, s);
}

// The largest capillary pressure of a curve (0 of an empty one).
double MostPc(const CapillaryCurve& c)
{
    double most = 0.0;
    for (double v : c.pc)
        most = std::max(most, std::fabs(v));
    return most;
}

// A table's capillary pressure curve as one cell sees it: its saturations
// mapped linearly from the cell's [low, high] onto the table's, its values
// times `factor` (the cell's largest Pc over the table's).  Unscaled, the
// cell's end points are the table's and the factor 1.
struct CellCurve
{
    const CapillaryCurve* curve;
    double lowTable, highTable, low, high, factor;
    bool level;

    // `isLevel`: c.Level(), worked out once per table
    CellCurve(const CapillaryCurve& c, bool isLevel, const double* lows, const double* highs,
              const double* largest, std::uint64_t h)
        : curve(&c), lowTable(c.Empty() ? 0.0 : c.saturation.front()),
          highTable(c.Empty() ? 1.0 : c.saturation.back()), low(lows ? lows[h] : lowTable),
          high(highs ? highs[h] : highTable), factor(1.0), level(isLevel)
    {
        if (largest && !c.Empty()) {
            const double most = MostPc(c);
            factor = most > 0.0 ? largest[h] / most : 1.0;
        }
    }
    double ToTable(double s) const
    {
        return high == low ? lowTable : lowTable + (s - low) * ((highTable - lowTable) / (high - low));
    }
    double FromTable(double s) const
    {
        // the table's ends map onto the cell's exactly (an all-water cell is at its highest)
        if (highTable == lowTable || s <= lowTable)
            return low;
        if (s >= highTable)
            return high;
        return low + (s - lowTable) * ((high - low) / (highTable - lowTable));
    }
    double Pc(double s) const { return factor * PcAt(*curve, ToTable(s)); }
    // A level curve places its phase by depth: at its highest on the phase's side of the
    // contact (`inside`), else at its lowest (NaN where the pressures `pc` is of are).
    bool Level() const { return level; }
    double Placed(bool inside, double pc) const { return std::isnan(pc) ? pc : inside ? high : low; }
    double Invert(double pc, bool falling) const
    {
        // a curve scaled to 0 everywhere: any Pc above (below) 0 lies past its end
        const double beyond = std::copysign(std::numeric_limits<double>::infinity(), pc);
        const double table = factor != 0.0 ? pc / factor : (pc == 0.0 ? 0.0 : beyond);
        return FromTable(curve->Invert(table, falling));
    }
    double Highest() const { return high; }
    double Lowest() const { return low; }
    // The largest Pc of the cell's curve.
    double Largest() const { return MostPc(*curve) * factor; }
};

// The state at one depth: the oil pressure (gas in a gas-water system) and
// the saturations.
struct PointState
{
    double p, sw, sg;
};

// The Sw at which Pcow(Sw) + Pcog(1 - Sw), falling as Sw rises, reaches
// `pcgw`, within the water curve's saturations (bisection to the last bit).
double GasWaterSaturation(double pcgw, const CellCurve& water, const CellCurve& gas)
{
    const auto f = [&](double sw) { return water.Pc(sw) + gas.Pc(1.0 - sw); };
    double lo = water.Lowest(), hi = water.Highest();
    if (pcgw >= f(lo))
        return lo;
    if (pcgw <= f(hi))
        return hi;
    for (int i = 0; i < 200; ++i) {
        const double mid = 0.5 * (lo + hi);
        if (mid <= lo || mid >= hi)
            break;
        (f(mid) > pcgw ? lo : hi) = mid;
    }
    return 0.5 * (lo + hi);
}

PointState StateAt(double z, const RegionCurves& r, CellCurve& water, const CellCurve& gas, const Phases& phases,
                   double swatinit)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    double po = phases.oil ? r.oil.At(z) : nan;
    const double pw = phases.water ? r.water.At(z) : nan;
    const double pg = phases.gas ? r.gas.At(z) : nan;
    if (phases.oil) {
        double sw = 0.0, sg = 0.0;
        const double table = phases.water && !std::isnan(swatinit) && po - pw > 0.0
                                 ? PcAt(*water.curve, water.ToTable(std::max(swatinit, water.Lowest())))
                                 : 0.0;
        if (table > 0.0) {
            // SWATINIT: the cell's curve scaled to reach this Pcow at that saturation.
            sw = std::min(std::max(swatinit, water.Lowest()), water.Highest());
            water.factor = (po - pw) / table;
        } else if (phases.water) {
            // Pcow falls as Sw rises: in the water zone (Pcow at or below the curve's lowest)
            // the cell is all water, and the oil pressure there the water's plus the
            // curve's Pc at that saturation.
            sw = water.Level() ? water.Placed(z > r.owc, po - pw) : water.Invert(po - pw, true);
            if (sw >= water.Highest())
                po = pw + water.Pc(sw);
        }
        if (phases.gas) {
            sg = gas.Level() ? gas.Placed(z <= r.goc, pg - po) : gas.Invert(pg - po, false);
            if (sg > 0.0 && sg >= gas.Highest())
                po = pg - gas.Pc(sg);
        }
        if (phases.water && phases.gas && sw + sg > 1.0) {
            // Gas meets water with no oil between: Sw is where Pcow(Sw) + Pcog(1 - Sw), the
            // gas-water capillary pressure, reaches pg - pw; the gas has the rest.  A cell
            // with SWATINIT keeps its Sw, and its Pcow curve is scaled to reach there the
            // difference between the oil pressure (the gas's less Pcog) and the water's.
            if (std::isnan(swatinit))
                sw = GasWaterSaturation(pg - pw, water, gas);
            sg = 1.0 - sw;
            // all water (the gas pressure below the water's): the oil pressure is the water's
            // plus Pcow there, as in the water zone
            po = sw >= water.Highest() ? pw + water.Pc(sw) : pg - gas.Pc(sg);
            const double at = std::isnan(swatinit) ? 0.0 : PcAt(*water.curve, water.ToTable(sw));
            if (at > 0.0 && po - pw > 0.0)
                water.factor = (po - pw) / at;
        }
        return PointState{po, sw, sg};
    }
    if (phases.gas && phases.water) { // Pcgw of the water curve; the gas has the rest
        const double sw = water.Level() ? water.Placed(z > r.owc, pg - pw) : water.Invert(pg - pw, true);
        return PointState{sw >= water.Highest() ? pw + water.Pc(sw) : pg, sw, 1.0 - sw};
    }
    return PointState{phases.water ? pw : pg, phases.water ? 1.0 : 0.0, phases.gas ? 1.0 : 0.0};
}

} // namespace

std::vector<double> SliceWeights(int accuracy)
{
    if (accuracy < -20 || accuracy > 20)
        throw std::invalid_argument("EQUIL item 9 must lie from -20 to 20, not " + std::to_string(accuracy));
    if (accuracy == 0)
        return {1.0};
    const int slices = 2 * std::abs(accuracy);
    std::vector<double> weights(static_cast<std::size_t>(slices), 1.0 / slices);
    if (accuracy < 0)
        return weights;
    double total = 0.0;
    for (int k = 0; k < slices; ++k) {
        const double x = std::fabs((k + 0.5) / slices - 0.5);
        weights[k] = 0.25 + x - x * x;
        total += weights[k];
    }
    for (double& w : weights)
        w /= total;
    return weights;
}

void CellStatesOf(const Cells& cells, const std::vector<RegionCurves>& regions,
                  const std::vector<SaturationCurves>& saturation, const CellEndPoints& ends, const Phases& phases,
                  unsigned threads, const CellStates& out)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const auto put = [](double* into, std::uint64_t h, double value) {
        if (into)
            into[h] = value;
    };
    std::vector<std::vector<double>> weights;
    for (const RegionCurves& r : regions)
        weights.push_back(SliceWeights(r.accuracy));
    std::vector<std::pair<bool, bool>> level; // per saturation table: its water and gas curves'
    for (const SaturationCurves& s : saturation)
        level.emplace_back(s.water.Level(), s.gas.Level());
    ParallelChunks(cells.n, 4096, threads, [&](std::uint64_t begin, std::uint64_t end) {
        for (std::uint64_t h = begin; h < end; ++h) {
            if (!cells.active[h]) {
                for (double* into : {out.po, out.pw, out.pg, out.sw, out.sg, out.ppcw})
                    put(into, h, nan);
                continue;
            }
            const std::int32_t region = cells.region[h], table = cells.satnum[h];
            if (region < 1 || static_cast<std::size_t>(region) > regions.size())
                throw std::out_of_range("cell " + std::to_string(h) + " has equilibration region " +
                                        std::to_string(region) + "; there are " + std::to_string(regions.size()));
            if (table < 1 || static_cast<std::size_t>(table) > saturation.size())
                throw std::out_of_range("cell " + std::to_string(h) + " has saturation region " +
                                        std::to_string(table) + "; there are " + std::to_string(saturation.size()));
            const RegionCurves& r = regions[region - 1];
            const SaturationCurves& s = saturation[table - 1];
            CellCurve water(s.water, level[table - 1].first, ends.swl, ends.swu, ends.pcw, h);
            const CellCurve gas(s.gas, level[table - 1].second, ends.sgl, ends.sgu, ends.pcg, h);
            const double swatinit = ends.swatinit ? ends.swatinit[h] : nan;
            // The cell's state: at its centre, or the weighted mean of the states at the
            // centres of its level slices of equal thickness, from the top down (equal
            // weights: the sum over their number).
            const std::vector<double>& w = weights[region - 1];
            const int slices = static_cast<int>(w.size());
            const bool equal = r.accuracy <= 0;
            PointState sum{0.0, 0.0, 0.0};
            for (int k = 0; k < slices; ++k) {
                const double z = slices == 1 ? cells.depth[h]
                                             : cells.depth[h] - 0.5 * cells.thickness[h] +
                                                   cells.thickness[h] * ((k + 0.5) / slices);
                const PointState at = StateAt(z, r, water, gas, phases, swatinit);
                const double weight = equal ? 1.0 : w[k];
                sum.p += weight * at.p;
                sum.sw += weight * at.sw;
                sum.sg += weight * at.sg;
            }
            const double scale = equal ? slices : 1.0;
            const double p = sum.p / scale, sw = sum.sw / scale, sg = sum.sg / scale;
            put(out.po, h, p);
            if (phases.oil) {
                put(out.pw, h, phases.water ? p - water.Pc(sw) : nan);
                put(out.pg, h, phases.gas ? p + gas.Pc(sg) : nan);
            } else {
                put(out.pw, h, phases.water ? (phases.gas ? p - water.Pc(sw) : p) : nan);
                put(out.pg, h, phases.gas ? p : nan);
            }
            put(out.sw, h, sw);
            put(out.sg, h, sg);
            put(out.ppcw, h, phases.water && !s.water.Empty() ? water.Largest() : nan);
        }
    });
}

} // namespace equil
} // namespace kavra
