// The engine's entries of kavra.equil: the phase pressures of an
// equilibration region against depth (core/equil/Equil.h) with the phases'
// densities from the engine's region lists, and the state of every cell
// from them, on the pool's threads with the interpreter lock released.
#include "bindings/_engine/Equil.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nanobind/ndarray.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "bindings/_engine/Tables.h"
#include "core/blackoil/Gas.h"
#include "core/blackoil/Oil.h"
#include "core/blackoil/Water.h"
#include "core/equil/Equil.h"
#include "core/utils/ParallelFor.h"
#include "tessel/core/GridFunction.h"

namespace nb = nanobind;
using tessel::core::make_array_grid_function;

namespace kavra {
namespace engine {
namespace {

typedef nb::ndarray<const double, nb::ndim<1>, nb::c_contig, nb::device::cpu> Doubles;
typedef nb::ndarray<const std::int32_t, nb::ndim<1>, nb::c_contig, nb::device::cpu> Ints;
typedef nb::ndarray<const std::uint8_t, nb::ndim<1>, nb::c_contig, nb::device::cpu> Flags;
typedef nb::ndarray<double, nb::ndim<1>, nb::c_contig, nb::device::cpu> Outs;

std::vector<double> Values(const Doubles& a) { return std::vector<double>(a.data(), a.data() + a.shape(0)); }

// One cell's worth of a black-oil calculation: the core's entries called on
// grid functions of one element, in the PVT region `pvt`.
class Point
{
public:
    explicit Point(int pvt)
        : m_region(make_array_grid_function<int>(std::vector<int>{pvt})),
          m_p(make_array_grid_function<double>(std::vector<double>(1))),
          m_r(make_array_grid_function<double>(std::vector<double>(1))),
          m_out(make_array_grid_function<double>(std::vector<double>(1)))
    {
    }
    template <class List, class Entry>
    double Of(Entry entry, const List& list, double p)
    {
        m_p->data[0] = p;
        entry(list, m_region, m_p, m_out);
        return m_out->data[0];
    }
    template <class List, class Entry>
    double Of(Entry entry, const List& list, double p, double r)
    {
        m_p->data[0] = p;
        m_r->data[0] = r;
        entry(list, m_region, m_p, m_r, m_out);
        return m_out->data[0];
    }

private:
    boost::shared_ptr<tessel::core::ArrayGridFunction<int>> m_region;
    boost::shared_ptr<tessel::core::ArrayGridFunction<double>> m_p, m_r, m_out;
};

// A ratio against depth (RSVD, RVVD), or a saturation pressure against depth
// (PBVD, PDVD: the ratio is the saturated one at that pressure), or neither
// (then `atContact`, the saturated ratio at the contact, or with
// `atContact` below 0 the saturated ratio of each pressure); capped at the
// saturated ratio of the pressure.
struct RatioOfDepth
{
    std::vector<double> depth, value;
    bool ofPressure = false;
    double atContact = -1.0;
    template <class Saturated>
    double At(double z, double p, const Saturated& saturated) const
    {
        const double cap = saturated(p);
        if (depth.empty())
            return atContact < 0.0 ? cap : std::min(atContact, cap);
        const std::size_t n = depth.size();
        double v = value[n - 1];
        if (z <= depth[0])
            v = value[0];
        else if (z < depth[n - 1]) {
            std::size_t i = 0;
            while (z >= depth[i + 1])
                ++i;
            v = value[i] + (z - depth[i]) * ((value[i + 1] - value[i]) / (depth[i + 1] - depth[i]));
        }
        return std::min(ofPressure ? saturated(v) : v, cap);
    }
};

// The density of oil or gas at (z, p): of a dead fluid 1/B times its own surface density `own`;
// of one that carries the other phase (ratio r, of `ratio` capped at the saturated one), 1/B at
// (p, r) times own + r other.
template <class Live>
double PhaseDensity(Point& point, const TPVTList* dead, const Live* live,
                    void (*saturatedOf)(const Live&, GridFunctionPtr, GridFunctionPtr, GridFunctionPtr),
                    void (*oneOverB)(const Live&, GridFunctionPtr, GridFunctionPtr, GridFunctionPtr, GridFunctionPtr),
                    const RatioOfDepth& ratio, double own, double other, double z, double p)
{
    if (dead)
        return point.Of(static_cast<void (*)(const TPVTList&, GridFunctionPtr, GridFunctionPtr, GridFunctionPtr)>(
                            &CalcDeadFluidOneOverB),
                        *dead, p) *
               own;
    const double r = ratio.At(z, p, [&](double at) { return point.Of(saturatedOf, *live, at); });
    return point.Of(oneOverB, *live, p, r) * (own + r * other);
}

nb::object Array(const std::vector<double>& v)
{
    auto* owned = new std::vector<double>(v);
    nb::capsule owner(owned, [](void* p) noexcept { delete static_cast<std::vector<double>*>(p); });
    return nb::cast(nb::ndarray<nb::numpy, double, nb::ndim<1>>(owned->data(), {owned->size()}, owner));
}

// equil_region(oil, gas, water, pvt, surface, gas_factor, rs_table, rv_table, contacts, phases, top,
// bottom, steps, gravity, length): the depth and pressure nodes of the oil, water and gas curves of one
// region (empty for a phase absent).  oil, gas, water: engine lists or None; surface: the surface
// densities (oil, water, gas); gas_factor: what turns Rs x the gas surface density into a density
// (1, or scf per Mscf in FIELD); rs_table, rv_table: (depths, values, of_pressure) (RSVD, RVVD;
// PBVD, PDVD with of_pressure), or (None, value at the contact) with value < 0 for the saturated
// value at each pressure; length: metres per unit of the depths.
nb::tuple EquilRegion(const Tables* oil, const Tables* gas, const Tables* water, int pvt,
                      std::vector<double> surface, double gasFactor, nb::object rsTable, nb::object rvTable,
                      std::vector<double> contacts, std::vector<bool> phases, double top, double bottom, int steps,
                      double gravity, double length)
{
    if (surface.size() != 3 || contacts.size() != 6 || phases.size() != 3)
        throw std::invalid_argument("equil_region: surface, contacts and phases take 3, 6 and 3 values");
    if (steps < 1)
        throw std::invalid_argument("equil_region: steps must be at least 1");
    if (!(length > 0.0) || !std::isfinite(length))
        throw std::invalid_argument("equil_region: length must be a finite number above 0");
    const auto ratio = [](nb::object table) {
        RatioOfDepth r;
        nb::object depths = table[0];
        if (depths.is_none())
            r.atContact = nb::cast<double>(table[1]);
        else {
            r.depth = nb::cast<std::vector<double>>(depths);
            r.value = nb::cast<std::vector<double>>(table[1]);
            r.ofPressure = nb::cast<bool>(table[2]);
            if (r.depth.size() != r.value.size() || r.depth.empty())
                throw std::invalid_argument("equil_region: a table against depth needs as many values as depths");
        }
        return r;
    };
    const RatioOfDepth rs = ratio(rsTable), rv = ratio(rvTable);
    Point point(pvt);
    const double rhoO = surface[0], rhoW = surface[1], rhoG = surface[2];
    const TPVTOList* liveOil = oil ? oil->Get<TPVTOList>() : nullptr;
    const TPVTList* deadOil = oil ? oil->Get<TPVTList>() : nullptr;
    const TPVTGList* wetGas = gas ? gas->Get<TPVTGList>() : nullptr;
    const TPVTList* dryGas = gas ? gas->Get<TPVTList>() : nullptr;
    const TPVTWList* waterList = water ? water->Get<TPVTWList>() : nullptr;
    if ((phases[0] && !liveOil && !deadOil) || (phases[2] && !wetGas && !dryGas) || (phases[1] && !waterList))
        throw std::invalid_argument("equil_region: a phase present has no table");
    const equil::Density oilDensity = [&](double z, double p) {
        return PhaseDensity<TPVTOList>(point, deadOil, liveOil, &CalcSaturatedRs, &CalcLiveOilOneOverB, rs, rhoO,
                                       rhoG * gasFactor, z, p);
    };
    const equil::Density gasDensity = [&](double z, double p) {
        return PhaseDensity<TPVTGList>(point, dryGas, wetGas, &CalcSaturatedRv, &CalcWetGasOneOverB, rv,
                                       rhoG * gasFactor, rhoO, z, p);
    };
    const equil::Density waterDensity = [&](double, double p) {
        return point.Of(static_cast<void (*)(const TPVTWList&, GridFunctionPtr, GridFunctionPtr, GridFunctionPtr)>(
                            &CalcWaterOneOverB),
                        *waterList, p) *
               rhoW;
    };
    const equil::Contacts c{contacts[0], contacts[1], contacts[2], contacts[3], contacts[4], contacts[5]};
    const equil::Phases ph{phases[0], phases[1], phases[2]};
    equil::RegionCurves curves;
    {
        nb::gil_scoped_release unlocked;
        curves = equil::PhasePressures(c, ph, top, bottom, steps, gravity, oilDensity, waterDensity, gasDensity,
                                       length);
    }
    return nb::make_tuple(Array(curves.oil.depth), Array(curves.oil.pressure), Array(curves.water.depth),
                          Array(curves.water.pressure), Array(curves.gas.depth), Array(curves.gas.pressure));
}

// equil_cells(depth, thickness, region, satnum, active, curves, accuracy, saturation, ends, phases,
// threads, out): the state of every cell into out = (po, pw, pg, sw, sg, ppcw).  curves: per region
// the six arrays of equil_region; accuracy: per region EQUIL item 9, from -20 to 20 (0: a cell's
// centre, N: 2|N| level slices of it, weighted alike below 0, as the simulator above);
// saturation: per saturation region (sw, pcow, sg, pcog), empty arrays where the phases lack them;
// ends: the cells' own SWL, SWU, SGL, SGU, PCW, PCG and SWATINIT, each one value per cell or None;
// contacts: per region its (oil-water, gas-oil) contact depths, where a level capillary pressure
// curve places its phase (none: NaN each).
void EquilCells(Doubles depth, Doubles thickness, Ints region, Ints satnum, Flags active,
                std::vector<std::vector<Doubles>> curves, std::vector<int> accuracy,
                std::vector<std::vector<Doubles>> saturation, nb::list ends, std::vector<bool> phases,
                unsigned threads, std::vector<Outs> out, std::vector<std::pair<double, double>> contacts)
{
    const std::uint64_t n = depth.shape(0);
    if (thickness.shape(0) != n || region.shape(0) != n || satnum.shape(0) != n || active.shape(0) != n ||
        out.size() != 6 || phases.size() != 3 || accuracy.size() != curves.size() ||
        (!contacts.empty() && contacts.size() != curves.size()))
        throw std::invalid_argument("equil_cells: depth, thickness, region, satnum and active must be of one "
                                    "length, out of six arrays, accuracy (and contacts) one per region");
    for (const Outs& o : out)
        if (o.shape(0) != n)
            throw std::invalid_argument("equil_cells: every array of out must hold one value per cell");
    for (int n : accuracy)
        if (n < -20 || n > 20)
            throw std::invalid_argument("equil_cells: accuracy (EQUIL item 9) must lie from -20 to 20, not " +
                                        std::to_string(n));
    std::vector<equil::RegionCurves> regions;
    for (std::size_t k = 0; k < curves.size(); ++k) {
        const auto& r = curves[k];
        if (r.size() != 6)
            throw std::invalid_argument("equil_cells: a region's curves are six arrays");
        regions.push_back(equil::RegionCurves{{Values(r[0]), Values(r[1])},
                                              {Values(r[2]), Values(r[3])},
                                              {Values(r[4]), Values(r[5])},
                                              accuracy[k]});
        if (!contacts.empty()) {
            regions.back().owc = contacts[k].first;
            regions.back().goc = contacts[k].second;
        }
    }
    std::vector<equil::SaturationCurves> tables;
    for (const auto& s : saturation) {
        if (s.size() != 4)
            throw std::invalid_argument("equil_cells: a saturation region holds (sw, pcow, sg, pcog)");
        tables.push_back(equil::SaturationCurves{{Values(s[0]), Values(s[1])}, {Values(s[2]), Values(s[3])}});
    }
    if (ends.size() != 7)
        throw std::invalid_argument("equil_cells: ends holds SWL, SWU, SGL, SGU, PCW, PCG and SWATINIT");
    std::vector<Doubles> held;
    const double* endArrays[7] = {};
    held.reserve(7);
    for (std::size_t e = 0; e < 7; ++e) {
        if (ends[e].is_none())
            continue;
        held.push_back(nb::cast<Doubles>(ends[e]));
        if (held.back().shape(0) != n)
            throw std::invalid_argument("equil_cells: every array of ends must hold one value per cell");
        endArrays[e] = held.back().data();
    }
    const equil::CellEndPoints cellEnds{endArrays[0], endArrays[1], endArrays[2], endArrays[3],
                                        endArrays[4], endArrays[5], endArrays[6]};
    const equil::Phases ph{phases[0], phases[1], phases[2]};
    const bool needs[3] = {ph.oil && ph.water, ph.gas && ph.water && !ph.oil, ph.oil && ph.gas};
    for (const auto& t : tables)
        if (((needs[0] || needs[1]) && t.water.Empty()) || (needs[2] && t.gas.Empty()))
            throw std::invalid_argument("equil_cells: a saturation region lacks a capillary pressure curve");
    const equil::Cells cells{n, depth.data(), thickness.data(), region.data(), satnum.data(), active.data()};
    // A region without cells may have no curves; a cell of such a region fails.
    for (std::uint64_t h = 0; h < n; ++h) {
        const std::int32_t k = region.data()[h];
        if (!active.data()[h] || k < 1 || static_cast<std::size_t>(k) > regions.size())
            continue;
        const equil::RegionCurves& r = regions[k - 1];
        if ((ph.oil && r.oil.Empty()) || (ph.water && r.water.Empty()) || (ph.gas && r.gas.Empty()))
            throw std::invalid_argument("equil_cells: region " + std::to_string(k) +
                                        " lacks the curve of a phase present");
    }
    const equil::CellStates states{out[0].data(), out[1].data(), out[2].data(),
                                   out[3].data(), out[4].data(), out[5].data()};
    nb::gil_scoped_release unlocked;
    equil::CellStatesOf(cells, regions, tables, cellEnds, ph, UsefulThreads(threads < 1 ? 1 : threads), states);
}

} // namespace

void RegisterEquil(nb::module_& m)
{
    m.def("equil_region", &EquilRegion, nb::arg("oil").none(), nb::arg("gas").none(), nb::arg("water").none(),
          nb::arg("pvt"), nb::arg("surface"), nb::arg("gas_factor"), nb::arg("rs_table"), nb::arg("rv_table"),
          nb::arg("contacts"), nb::arg("phases"), nb::arg("top"), nb::arg("bottom"), nb::arg("steps"),
          nb::arg("gravity"), nb::arg("length"));
    m.def("equil_cells", &EquilCells, nb::arg("depth"), nb::arg("thickness"), nb::arg("region"), nb::arg("satnum"),
          nb::arg("active"), nb::arg("curves"), nb::arg("accuracy"), nb::arg("saturation"), nb::arg("ends"),
          nb::arg("phases"), nb::arg("threads"), nb::arg("out"),
          nb::arg("contacts") = std::vector<std::pair<double, double>>());
}

} // namespace engine
} // namespace kavra
