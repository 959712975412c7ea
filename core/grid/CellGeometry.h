#pragma once

// Volumes and centre depths of the cells of a corner-point grid (COORD and
// ZCORN), without Python.
//
// A cell is the image of the unit cube under the trilinear map through its
// eight corners, so its faces are bilinear patches (not planes) when their
// corners do not lie in one plane.  Its volume is the integral of the
// Jacobian determinant of that map over the unit cube, exact for any
// hexahedron: with the map written about the cube's centre,
//     x(s, t, r) = a0 + a1 s + a2 t + a3 r + a4 st + a5 tr + a6 sr + a7 str
// on [-1, 1]^3, every term of det(x_s, x_t, x_r) with an odd power of s, t or
// r integrates to zero, and what is left is
//     V = 8 [a1, a2, a3] + 8/3 ([a1, a4, a6] + [a4, a2, a5] + [a6, a5, a3])
// ([a, b, c] the triple product a . (b x c)), taken as an absolute value.
// The depth of a cell is the mean of its eight corners' z.  Its DX (DY) is
// the horizontal distance between the centres (the means of the four
// corners) of its two I (J) faces, its DZ the vertical one between the
// centres of its top and bottom faces.
#include <cstdint>

namespace kavra {
namespace grid {

// A corner-point grid of nI x nJ x nK cells, over the caller's arrays:
// coord holds (nI + 1)(nJ + 1) pillars of six numbers (x, y, z of the top
// point, then of the bottom point), I fastest; zcorn holds 8 nI nJ nK
// depths, two per cell along I, then along J, then along K (the deck's
// order).  Cell c = i + nI (j + nJ k).
struct CornerPointGrid
{
    std::uint64_t nI, nJ, nK;
    const double* coord;
    const double* zcorn;
};

// The eight corners of a cell, corner n = di + 2 dj + 4 dk (dk = 1 below).
struct Corners
{
    double x[8], y[8], z[8];
};

// The corners of cell c: each z from ZCORN, its x and y where the cell's
// pillar passes that depth (the pillar's top x, y where the pillar is flat).
Corners CellCorners(const CornerPointGrid& grid, std::uint64_t c);

// The volume of the trilinear hexahedron through `corners` (see above).
double HexahedronVolume(const Corners& corners);

// Where the numbers of every cell go: an array of one number per cell, or
// nullptr for a number not wanted.
struct CellGeometryOut
{
    double* volumes = nullptr;
    double* depths = nullptr;
    double* dx = nullptr;
    double* dy = nullptr;
    double* dz = nullptr;
};

// The wanted numbers of every cell of the grid, in chunks on at most
// `threads` threads.  The numbers do not depend on the threads.
void CellGeometry(const CornerPointGrid& grid, const CellGeometryOut& out, unsigned threads);

} // namespace grid
} // namespace kavra
