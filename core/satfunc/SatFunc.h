#pragma once

// Relative permeability and capillary pressure per cell, as the simulator
// evaluates them from the saturation tables of the cell's SATNUM region and
// the cell's own end points.
//
// Every table family becomes two sets of curves: those of water against the
// water saturation (krw, krow with So = 1 - Sw, Pcow) and those of gas
// against the gas saturation (krg, krog with So = 1 - Sg - SWL, Pcog).
// A curve is linear between its nodes and constant past both ends.
//
// End-point scaling maps a cell's saturation onto its table's through the
// cell's end points (two-point: the critical one and the largest; three-
// point: the displacing phase's residual one between them), and vertical
// scaling multiplies a value by the cell's maximum over the table's (with a
// residual value: the two pieces each through their own points).
//
// The three-phase oil model is the default one (the segregated model:
// krow and krog each at the cell's oil saturation, weighted by the water
// above connate water and by the gas), or Stone's first or second model.
#include <cstdint>
#include <string>
#include <vector>

namespace kavra {
namespace satfunc {

// A function of one saturation: nodes x[0] < x[1] < ... with their values y.
struct Curve
{
    std::vector<double> x, y;

    double At(double s) const;
    double Max() const;
};

// The end points a cell may have of its own, in the order of its arrays.
enum EndPoint : int {
    SWL, SWCR, SWU, SGL, SGCR, SGU, SOWCR, SOGCR,    // saturations
    KRW, KRWR, KRO, KRORW, KRORG, KRG, KRGR,       // relative permeabilities
    PCW, PCG,                                       // the largest capillary pressures
    END_POINTS
};

// One SATNUM region's curves and the end points its tables give.
struct Region
{
    Curve krw, krow, pcow; // against the water saturation
    Curve krg, krog, pcog; // against the gas saturation
    double ends[END_POINTS] = {};

    // Works out `ends` from the curves: the first, last critical and last
    // nodes of each, the residual oil saturations where krow and krog
    // reach 0, the values at the end points.
    void FindEndPoints();
};

enum class OilModel { Default, Stone1, Stone2 };

// The cells' own end points: `cell[e]` holds one value per cell, or is
// null where every cell has its region's.  `horizontal` scales the
// saturations (ENDSCALE), `threePoint` with the residual saturation as
// well (SCALECRS); the relative-permeability and capillary-pressure values
// scale where their arrays are given.
struct Scaling
{
    bool horizontal = false;
    bool threePoint = false;
    const double* cell[END_POINTS] = {};
};

struct Functions
{
    std::vector<Region> regions;
    OilModel model = OilModel::Default;
};

// A region number outside 1..regions of a cell.
struct WrongRegion
{
    std::uint64_t cell;
    std::int64_t region;
    std::size_t regions;
    std::string What() const;
};

// kr of water, oil and gas of cells 0..n-1 at their water and gas
// saturations; satnum holds each cell's region (1-based; 0: a cell the
// simulator does not hold, NaN).  Any output may
// be null (not computed).  Throws WrongRegion, the cells before it written.
template <class T>
void RelPerm(const Functions& functions, const Scaling& scaling, const int* satnum, const T* sw, const T* sg,
             std::uint64_t n, double* krw, double* kro, double* krg, unsigned threads);

// Pcow (at sw) and Pcog (at sg) of cells 0..n-1, in the tables' units.
template <class T>
void CapillaryPressure(const Functions& functions, const Scaling& scaling, const int* satnum, const T* sw,
                       const T* sg, std::uint64_t n, double* pcow, double* pcog, unsigned threads);

// Each cell's end points as it uses them: out[e] (n values each, or null)
// from the cell's array or else its region's.
void CellEndPoints(const Functions& functions, const Scaling& scaling, const int* satnum, std::uint64_t n,
                   double* const out[END_POINTS]);

} // namespace satfunc
} // namespace kavra
