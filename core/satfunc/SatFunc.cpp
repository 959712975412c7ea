#include "core/satfunc/SatFunc.h"

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <stdexcept>

#include "core/utils/ParallelFor.h"

namespace kavra {
namespace satfunc {

double Curve::At(double s) const
{
    const std::size_t n = x.size();
    if (n == 1 || s <= x[0])
        return y[0];
    if (s >= x[n - 1])
        return y[n - 1];
    // The last node of x[0 .. n-2] at or below s (x[0] is; a NaN s stays at
    // x[0]): halving without branches, which a cell's unpredictable
    // saturation would mispredict.
    const double* base = x.data();
    std::size_t len = n - 1;
    while (len > 1) {
        const std::size_t half = len / 2;
        base = s >= base[half] ? base + half : base;
        len -= half;
    }
    const std::size_t lo = static_cast<std::size_t>(base - x.data());
    return y[lo] + (s - x[lo]) * ((y[lo + 1] - y[lo]) / (x[lo + 1] - x[lo]));
}

double Curve::Max() const { return *std::max_element(y.begin(), y.end()); }

namespace {

// The node after the leading run of zero values, less one: the last node
// where the curve is still 0 from its start (0 where the first is not 0).
std::size_t LastLeadingZero(const Curve& c)
{
    std::size_t i = 0;
    while (i + 1 < c.y.size() && c.y[i + 1] == 0.0)
        ++i;
    return i;
}

// The first node of the trailing run of zero values (the last node where
// the last value is not 0).
std::size_t FirstTrailingZero(const Curve& c)
{
    std::size_t i = c.y.size() - 1;
    while (i > 0 && c.y[i - 1] == 0.0)
        --i;
    return i;
}

} // namespace

void Region::FindEndPoints()
{
    double* e = ends;
    e[SWL] = krw.x.front();
    e[SWU] = krw.x.back();
    e[SWCR] = krw.x[LastLeadingZero(krw)];
    e[SGL] = krg.x.front();
    e[SGU] = krg.x.back();
    e[SGCR] = krg.x[LastLeadingZero(krg)];
    e[SOWCR] = 1.0 - krow.x[FirstTrailingZero(krow)];
    e[SOGCR] = 1.0 - krog.x[FirstTrailingZero(krog)] - e[SWL];
    e[KRW] = krw.y.back();
    e[KRWR] = krw.At(1.0 - e[SOWCR] - e[SGL]);
    e[KRO] = krow.At(e[SWL]);
    e[KRORW] = krow.At(e[SWCR]);
    e[KRORG] = krog.At(e[SGCR]);
    e[KRG] = krg.y.back();
    e[KRGR] = krg.At(1.0 - e[SOGCR] - e[SWL]);
    e[PCW] = pcow.At(e[SWL]);
    e[PCG] = pcog.At(e[SGU]);
}

std::string WrongRegion::What() const
{
    return "cell " + std::to_string(cell) + " has SATNUM " + std::to_string(region) + ", outside 1.." +
           std::to_string(regions);
}

namespace {

struct RegionFailure : std::out_of_range
{
    WrongRegion facts;
    explicit RegionFailure(const WrongRegion& w) : std::out_of_range(w.What()), facts(w) {}
};

const std::uint64_t chunk = 1 << 14;

// s moved from the span [c0, c1] of the cell onto [t0, t1] of the table
// (linear, beyond both ends too); an empty span of the cell takes s below it
// to t0 and the rest to t1.
inline double Map(double s, double c0, double c1, double t0, double t1)
{
    if (!(c1 > c0))
        return s < c0 ? t0 : t1;
    return t0 + (s - c0) * ((t1 - t0) / (c1 - c0));
}

// Through three points: [c0, c1] onto [t0, t1], from c1 on [c1, c2] onto [t1, t2].
inline double Map3(double s, double c0, double c1, double c2, double t0, double t1, double t2)
{
    return s < c1 ? Map(s, c0, c1, t0, t1) : Map(s, c1, c2, t1, t2);
}

// A value k of the table, vertically scaled: by the cell's maximum over the
// table's; with a residual value, the part of the curve up to the cell's
// residual saturation sr (the cell's saturation s at or below it) by the
// residual values' ratio, and the rest linear in k between the residual
// value and the maximum.
inline double Ratio(double k, double cell, double table) { return table != 0.0 ? k * (cell / table) : 0.0; }

inline double Vertical(double k, double s, double sr, bool residual, double cellMax, double tableMax,
                       double cellR, double tableR)
{
    if (!residual)
        return Ratio(k, cellMax, tableMax);
    if (s <= sr)
        return Ratio(k, cellR, tableR);
    if (tableMax == tableR)
        return cellR;
    return cellR + (k - tableR) * ((cellMax - cellR) / (tableMax - tableR));
}

// The cell's end points: its own where its arrays have them, else its region's.
struct Ends
{
    double v[END_POINTS];
};

// The end points a call's cells have arrays of, listed once.
struct Given
{
    int index[END_POINTS];
    int count = 0;
    explicit Given(const Scaling& scaling)
    {
        for (int i = 0; i < END_POINTS; ++i)
            if (scaling.cell[i])
                index[count++] = i;
    }
};

inline void CellEnds(const Region& region, const Scaling& scaling, const Given& given, std::uint64_t h, Ends& e)
{
    std::copy(region.ends, region.ends + END_POINTS, e.v);
    for (int j = 0; j < given.count; ++j)
        e.v[given.index[j]] = scaling.cell[given.index[j]][h];
}

// The cell's region; null for region 0 (a cell the simulator does not hold).
inline const Region* RegionOf(const Functions& f, const int* satnum, std::uint64_t h)
{
    const int r = satnum[h];
    if (r == 0)
        return nullptr;
    if (r < 0 || static_cast<std::size_t>(r) > f.regions.size())
        throw RegionFailure(WrongRegion{h, r, f.regions.size()});
    return &f.regions[static_cast<std::size_t>(r) - 1];
}

const double nan = std::numeric_limits<double>::quiet_NaN();

// The saturations a curve scales between, along the saturation its value
// rises with: its critical one, the displacing phase's residual one (three-
// point scaling and the residual value of vertical scaling), its largest.
struct Points
{
    double critical, residual, largest;
};

inline Points WaterPoints(const double* e) { return {e[SWCR], 1.0 - e[SOWCR] - e[SGL], e[SWU]}; }
inline Points GasPoints(const double* e) { return {e[SGCR], 1.0 - e[SOGCR] - e[SWL], e[SGU]}; }
inline Points OilWaterPoints(const double* e) { return {e[SOWCR], 1.0 - e[SWCR] - e[SGL], 1.0 - e[SWL] - e[SGL]}; }
inline Points OilGasPoints(const double* e) { return {e[SOGCR], 1.0 - e[SGCR] - e[SWL], 1.0 - e[SWL] - e[SGL]}; }

// A curve's value at a cell's saturation s (along `Points`): s moved onto
// the table between the cell's points and the table's (with ENDSCALE),
// read(table saturation), then vertically scaled by the end points `max`
// and `residual` where the cell has either of its own.
template <Points (*points)(const double*), class Read>
double Scaled(const Scaling& sc, const double* t, const double* e, double s, EndPoint max, EndPoint residual,
              const Read& read)
{
    double at = s;
    Points cell{}, table{};
    if (sc.horizontal || sc.cell[residual]) {
        cell = points(e);
        table = points(t);
    }
    if (sc.horizontal)
        at = sc.threePoint ? Map3(s, cell.critical, cell.residual, cell.largest, table.critical, table.residual,
                                  table.largest)
                           : Map(s, cell.critical, cell.largest, table.critical, table.largest);
    const double k = read(at);
    if (!sc.cell[max] && !sc.cell[residual])
        return k;
    return Vertical(k, s, cell.residual, sc.cell[residual] != nullptr, e[max], t[max], e[residual], t[residual]);
}

// krw, krow, krog, krg of a cell at (sw, sg) with its end points e over
// the table's t (the same pointer when the cell does not scale).
struct TwoPhase
{
    double krw, krow, krog, krg, swco;
};

// With `stone` krow is at the cell's water saturation alone and krog at its
// gas saturation alone (the two-phase values Stone's models combine); else
// both at the cell's oil saturation 1 - max(Sw, SWL) - Sg.
inline TwoPhase TwoPhaseValues(const Region& r, const Scaling& sc, const double* t, const double* e, double sw,
                               double sg, bool stone)
{
    TwoPhase out;
    out.swco = e[SWL];
    const double swEff = std::max(sw, e[SWL]);
    const double soWater = stone ? 1.0 - swEff : 1.0 - swEff - sg;
    const double soGas = stone ? 1.0 - sg - e[SWL] : soWater;
    const double tableSwl = t[SWL];
    out.krw = Scaled<WaterPoints>(sc, t, e, sw, KRW, KRWR, [&](double x) { return r.krw.At(x); });
    out.krg = Scaled<GasPoints>(sc, t, e, sg, KRG, KRGR, [&](double x) { return r.krg.At(x); });
    out.krow = Scaled<OilWaterPoints>(sc, t, e, soWater, KRO, KRORW, [&](double x) { return r.krow.At(1.0 - x); });
    out.krog = Scaled<OilGasPoints>(sc, t, e, soGas, KRO, KRORG,
                                    [&](double x) { return r.krog.At(1.0 - x - tableSwl); });
    return out;
}

inline double OilDefault(const TwoPhase& k, double sw, double sg)
{
    const double wd = std::max(sw, k.swco) - k.swco;
    const double den = sg + wd;
    return den > 0.0 ? (sg * k.krog + wd * k.krow) / den : k.krow;
}

// Stone's second model, normalised by krow at connate water (krocw).
inline double OilStone2(const TwoPhase& k, double krocw)
{
    if (krocw == 0.0)
        return 0.0;
    const double v = krocw * ((k.krow / krocw + k.krw) * (k.krog / krocw + k.krg) - (k.krw + k.krg));
    return std::max(v, 0.0);
}

// Stone's first model, normalised by krow at connate water (krocw) and by
// the saturations above connate water (no minimum oil saturation, as Flow
// evaluates it):
//   kro = krow krog / krocw * So* / ((1 - Sw*) (1 - Sg*)),
//   So* = So / (1 - Swco), Sw* = (Sw - Swco) / (1 - Swco), Sg* = Sg / (1 - Swco).
inline double OilStone1(const TwoPhase& k, double krocw, double sw, double sg)
{
    if (sw != sw || sg != sg)
        return sw + sg; // NaN
    if (krocw == 0.0)
        return 0.0;
    const double swco = k.swco;
    const double span = 1.0 - swco;
    const double swEff = std::max(sw, swco);
    const double so = 1.0 - swEff - sg;
    if (!(span > 0.0) || !(so > 0.0))
        return 0.0;
    const double soStar = so / span;
    const double swStar = (swEff - swco) / span;
    const double sgStar = sg / span;
    const double d = (1.0 - swStar) * (1.0 - sgStar);
    if (!(d > 0.0))
        return 0.0;
    return std::max(0.0, k.krow * k.krog / krocw * soStar / d);
}

bool Scales(const Scaling& sc)
{
    if (sc.horizontal)
        return true;
    for (int i = 0; i < END_POINTS; ++i)
        if (sc.cell[i])
            return true;
    return false;
}

} // namespace

namespace {

// Walks cells 0..n-1 in chunks on the pool: a cell of region 0 gets NaN in
// every output given, any other body(its region, its end points, h).
template <class Body>
void EachCell(const Functions& f, const Scaling& sc, const int* satnum, std::uint64_t n, unsigned threads,
              std::initializer_list<double*> outputs, const Body& body)
{
    const bool scales = Scales(sc);
    const Given given(sc);
    ParallelChunks(n, chunk, threads, [&](std::uint64_t begin, std::uint64_t end) {
        Ends own;
        for (std::uint64_t h = begin; h < end; ++h) {
            const Region* region = RegionOf(f, satnum, h);
            if (!region) {
                for (double* out : outputs)
                    if (out)
                        out[h] = nan;
                continue;
            }
            const double* e = region->ends;
            if (scales) {
                CellEnds(*region, sc, given, h, own);
                e = own.v;
            }
            body(*region, e, h);
        }
    });
}

} // namespace

template <class T>
void RelPerm(const Functions& f, const Scaling& sc, const int* satnum, const T* sw, const T* sg, std::uint64_t n,
             double* krw, double* kro, double* krg, unsigned threads)
{
    const bool stone = f.model != OilModel::Default;
    EachCell(f, sc, satnum, n, threads, {krw, kro, krg}, [&](const Region& r, const double* e, std::uint64_t h) {
        const double w = static_cast<double>(sw[h]), g = static_cast<double>(sg[h]);
        const TwoPhase k = TwoPhaseValues(r, sc, r.ends, e, w, g, stone);
        if (krw)
            krw[h] = k.krw;
        if (krg)
            krg[h] = k.krg;
        if (!kro)
            return;
        switch (f.model) {
        case OilModel::Default:
            kro[h] = OilDefault(k, w, g);
            break;
        case OilModel::Stone1:
            kro[h] = OilStone1(k, e[KRO], w, g);
            break;
        case OilModel::Stone2:
            kro[h] = OilStone2(k, e[KRO]);
            break;
        }
    });
}

template <class T>
void CapillaryPressure(const Functions& f, const Scaling& sc, const int* satnum, const T* sw, const T* sg,
                       std::uint64_t n, double* pcow, double* pcog, unsigned threads)
{
    EachCell(f, sc, satnum, n, threads, {pcow, pcog}, [&](const Region& r, const double* e, std::uint64_t h) {
        const double* t = r.ends;
        const double w = static_cast<double>(sw[h]), g = static_cast<double>(sg[h]);
        if (pcow) {
            const double st = sc.horizontal ? Map(w, e[SWL], e[SWU], t[SWL], t[SWU]) : w;
            const double v = r.pcow.At(st);
            pcow[h] = sc.cell[PCW] ? Ratio(v, e[PCW], t[PCW]) : v;
        }
        if (pcog) {
            const double gt = sc.horizontal ? Map(g, e[SGL], e[SGU], t[SGL], t[SGU]) : g;
            const double v = r.pcog.At(gt);
            pcog[h] = sc.cell[PCG] ? Ratio(v, e[PCG], t[PCG]) : v;
        }
    });
}

void CellEndPoints(const Functions& f, const Scaling& sc, const int* satnum, std::uint64_t n,
                   double* const out[END_POINTS])
{
    for (std::uint64_t h = 0; h < n; ++h) {
        const Region* r = RegionOf(f, satnum, h);
        for (int i = 0; i < END_POINTS; ++i)
            if (out[i])
                out[i][h] = !r ? nan : sc.cell[i] ? sc.cell[i][h] : r->ends[i];
    }
}

template void RelPerm<float>(const Functions&, const Scaling&, const int*, const float*, const float*, std::uint64_t,
                             double*, double*, double*, unsigned);
template void RelPerm<double>(const Functions&, const Scaling&, const int*, const double*, const double*,
                              std::uint64_t, double*, double*, double*, unsigned);
template void CapillaryPressure<float>(const Functions&, const Scaling&, const int*, const float*, const float*,
                                       std::uint64_t, double*, double*, unsigned);
template void CapillaryPressure<double>(const Functions&, const Scaling&, const int*, const double*, const double*,
                                        std::uint64_t, double*, double*, unsigned);

} // namespace satfunc
} // namespace kavra
