#pragma once

// Hydrostatic equilibrium of an equilibration region, as the simulator
// initialises it from EQUIL: the pressure of each phase against depth,
// integrated from the datum (and from the contacts, each phase's pressure
// there set from the other's and the contact's capillary pressure) with the
// phase's density at its pressure; then, per cell, the phase pressures read
// at the cell's depth and the saturations that the capillary pressures
// between them give.
//
// Plain C++17; every number in the deck's units, `gravity` turning a
// density times a depth difference into a pressure difference.
#include <cstdint>
#include <functional>
#include <limits>
#include <vector>

namespace kavra {
namespace equil {

// A phase's density at (depth, pressure).
using Density = std::function<double(double depth, double pressure)>;

// A pressure against depth: nodes of rising depth, read linearly between
// them and extended linearly past both ends.
struct PressureCurve
{
    std::vector<double> depth, pressure;

    double At(double z) const;
    bool Empty() const { return depth.empty(); }
};

// The classical fourth-order Runge-Kutta integration of
// dp/dz = gravity * density(z, p) from (z0, p0) to `top` and to `bottom`
// in `steps` equal steps each way (a way of zero length adds nothing).
PressureCurve Hydrostatic(double z0, double p0, double top, double bottom, int steps, double gravity,
                          const Density& density);

// The items of an EQUIL record that fix the pressures.  In a gas-water
// system the oil-water contact is the gas-water contact.
struct Contacts
{
    double datum, datumPressure, owc, pcOwc, goc, pcGoc;
};

// The phases present.
struct Phases
{
    bool oil, water, gas;
};

// The pressures of the phases present over [top, bottom] (which the
// curves cover, with the datum and the contacts).  The phase of the datum
// is that of the zone it lies in (gas above the gas-oil contact, water
// below the oil-water contact, else oil); from it each neighbouring phase
// starts at the contact between them, at that phase's pressure there as the
// simulator reads it (a contact at the end of the span may take the node a
// step short of it; `metres`: metres per unit of the depths, where the
// simulator places it).
struct RegionCurves
{
    PressureCurve oil, water, gas;
    int accuracy = 0; // EQUIL item 9: the point or slices of a cell whose states are averaged
    // The contacts (EQUIL items 3 and 5; in a gas-water system the first is the gas-water
    // contact), where a level capillary pressure curve places its phase (NaN: none).
    double owc = std::numeric_limits<double>::quiet_NaN(), goc = std::numeric_limits<double>::quiet_NaN();
};

RegionCurves PhasePressures(const Contacts& contacts, const Phases& phases, double top, double bottom, int steps,
                            double gravity, const Density& oil, const Density& water, const Density& gas,
                            double metres = 1.0);

// A capillary pressure against a saturation, as a table gives it (the
// saturations rising).
struct CapillaryCurve
{
    std::vector<double> saturation, pc;

    bool Empty() const { return saturation.empty(); }
    // One capillary pressure at every saturation (zero throughout, say): the
    // curve places its phase by the contact's depth, not by the pressures.
    bool Level() const;
    // The saturation at which the curve reaches `pc`: linear between nodes,
    // the curve's end where `pc` lies beyond it (the end of the lowest Pc
    // where `pc` is that Pc).  `falling`: Pc falls as the saturation rises
    // (Pcow against Sw), else it rises (Pcog against Sg); a level curve is
    // read in that direction.
    double Invert(double pc, bool falling) const;
};

// The curves of one saturation region: Pcow against Sw (SWOF, SWFN) and
// Pcog against Sg (SGOF, SGFN); an empty curve where the phases lack it.
struct SaturationCurves
{
    CapillaryCurve water, gas;
};

// The cells of a call: centre depths and thicknesses, equilibration and
// saturation region numbers (from 1) and the active flag, n of each.
struct Cells
{
    std::uint64_t n;
    const double* depth;
    const double* thickness;
    const std::int32_t* region;
    const std::int32_t* satnum;
    const std::uint8_t* active;
};

// The cells' own end points of the capillary pressure curves (ENDSCALE),
// each one value per cell or null where the cells take their table's: the
// lowest and highest water and gas saturations (SWL, SWU, SGL, SGU), and the
// largest Pcow and Pcog (PCW, PCG).  A cell's saturation maps linearly from
// its [low, high] onto the table's, its Pc is the table's there times its
// largest over the table's.
struct CellEndPoints
{
    const double *swl = nullptr, *swu = nullptr, *sgl = nullptr, *sgu = nullptr, *pcw = nullptr, *pcg = nullptr;
    // SWATINIT (NaN in a cell without one): where the oil zone's Pcow is above 0
    // the cell holds that water (at least its lowest), its Pcow curve scaled to
    // give it (cells at their centres only).
    const double* swatinit = nullptr;
};

// What a call fills: one value per cell (NaN where inactive); any may be null.
struct CellStates
{
    double *po, *pw, *pg, *sw, *sg;
    double* ppcw = nullptr; // the cell's largest Pcow, as its curve is scaled
};

// The weights of the level slices of a cell from EQUIL item 9 (N): one (the
// cell's centre) for 0, else 2|N| slices of equal thickness, their states
// weighted alike for N below 0 and, for N above 0, as the simulator weights
// those of a level cell: in proportion to 1/4 + |x| - x^2 at the slice's
// centre x (from the cell's centre, in cell thicknesses).  N outside -20 to
// 20 (as the simulator refuses it) throws std::invalid_argument.
std::vector<double> SliceWeights(int accuracy);

// Reads every active cell's phase pressures in its region's curves at its
// depth and inverts the capillary pressures there into saturations, or,
// where the cell's curve is level (CapillaryCurve::Level), takes the phase
// at its highest above its contact with oil or at it (gas) or below it
// (water) and at its lowest on the other side, whatever the contact's
// capillary pressure (a
// saturation at its table's end makes the oil pressure the pressure of the
// phase that fills the cell less or plus the Pc there); with slices (EQUIL
// item 9 not 0) the cell's state is the weighted mean of those at the
// centres of its slices (SliceWeights), taken from the top down.  The water
// and gas pressures are then the oil's less and plus the Pc at the cell's
// saturations.  On at most `threads` threads
// (the same numbers for any count).  Region and
// saturation region numbers out of range throw std::out_of_range naming
// the cell.
void CellStatesOf(const Cells& cells, const std::vector<RegionCurves>& regions,
                  const std::vector<SaturationCurves>& saturation, const CellEndPoints& ends, const Phases& phases,
                  unsigned threads, const CellStates& out);

} // namespace equil
} // namespace kavra
