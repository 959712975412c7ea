#include "core/grid/CellGeometry.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "core/utils/ParallelFor.h"

namespace kavra {
namespace grid {

namespace {

struct Vector
{
    double x, y, z;
};

double Triple(const Vector& a, const Vector& b, const Vector& c)
{
    return a.x * (b.y * c.z - b.z * c.y) + a.y * (b.z * c.x - b.x * c.z) + a.z * (b.x * c.y - b.y * c.x);
}

// A pillar: its top point and its slopes in x and y per unit of depth.
struct Pillar
{
    double x, y, z, slopeX, slopeY;
    bool flat; // top and bottom at one depth: the pillar's x and y at any depth
};

Pillar PillarAt(const double* coord)
{
    const bool flat = coord[2] == coord[5];
    const double rise = coord[2] - coord[5];
    return Pillar{coord[0], coord[1], coord[2], flat ? 0.0 : (coord[3] - coord[0]) / rise,
                  flat ? 0.0 : (coord[4] - coord[1]) / rise, flat};
}

// The corners of cell (i, j, k), pillarOf(p) giving pillar p of the grid:
// each corner where its pillar passes its depth, the pillar's slope times
// the depth above the pillar's top away from that top.
template <class PillarOf>
Corners CornersOf(const CornerPointGrid& g, std::uint64_t i, std::uint64_t j, std::uint64_t k,
                  const PillarOf& pillarOf)
{
    Corners p;
    for (int n = 0; n < 8; ++n) {
        const std::uint64_t di = n & 1, dj = (n >> 1) & 1, dk = (n >> 2) & 1;
        const double z = g.zcorn[(2 * k + dk) * 4 * g.nI * g.nJ + (2 * j + dj) * 2 * g.nI + 2 * i + di];
        const Pillar& pillar = pillarOf((j + dj) * (g.nI + 1) + i + di);
        p.z[n] = z;
        p.x[n] = pillar.flat ? pillar.x : pillar.x + pillar.slopeX * (pillar.z - z);
        p.y[n] = pillar.flat ? pillar.y : pillar.y + pillar.slopeY * (pillar.z - z);
    }
    return p;
}

constexpr std::uint64_t cellsPerChunk = 1 << 14;

// The centre of the face of the cell whose corner n is at(n) where bit `axis`
// of the corner number is 1, less the centre of the face where it is 0.
template <class At>
Vector FaceSpan(const At& at, int axis)
{
    Vector span{0.0, 0.0, 0.0};
    for (int n = 0; n < 8; ++n) {
        const double sign = (n >> axis) & 1 ? 0.25 : -0.25;
        const Vector corner = at(n);
        span.x += sign * corner.x;
        span.y += sign * corner.y;
        span.z += sign * corner.z;
    }
    return span;
}

// The volume of the hexahedron whose corner n is at(n) (see the header).
template <class At>
double VolumeOf(const At& at)
{
    // The corners relative to corner 0: differences of nearby numbers, exact however far
    // the grid lies from the origin, where the sums below of the corners themselves would
    // lose their last digits.  (The signs of each sum add up to zero, so corner 0 drops out.)
    const Vector origin = at(0);
    Vector d[8];
    for (int n = 1; n < 8; ++n) {
        const Vector corner = at(n);
        d[n] = Vector{corner.x - origin.x, corner.y - origin.y, corner.z - origin.z};
    }
    // e_m = 8 a_m (a1 .. a6 of the header are the monomials s, t, r, st, tr, sr): the
    // corners, each with the sign at it of the monomial (s = +1 where di = 1, t where
    // dj = 1, r where dk = 1).
    // sum(a, b, c, e, f, g, h, four) = d_a + d_b + d_c + (four ? d_e : -d_e) - d_f - d_g - d_h.
    auto sum = [&d](int a, int b, int c, int e, int f, int g, int h, bool four) {
        const double sign = four ? 1.0 : -1.0;
        return Vector{d[a].x + d[b].x + d[c].x + sign * d[e].x - d[f].x - d[g].x - d[h].x,
                      d[a].y + d[b].y + d[c].y + sign * d[e].y - d[f].y - d[g].y - d[h].y,
                      d[a].z + d[b].z + d[c].z + sign * d[e].z - d[f].z - d[g].z - d[h].z};
    };
    const Vector s = sum(1, 3, 5, 7, 2, 4, 6, true), t = sum(2, 3, 6, 7, 1, 4, 5, true);
    const Vector r = sum(4, 5, 6, 7, 1, 2, 3, true), st = sum(3, 4, 7, 1, 2, 5, 6, false);
    const Vector tr = sum(1, 6, 7, 2, 3, 4, 5, false), sr = sum(2, 5, 7, 1, 3, 4, 6, false);
    // V = [e_s, e_t, e_r] / 64 + ([e_s, e_st, e_sr] + [e_st, e_t, e_tr] + [e_sr, e_tr, e_r]) / 192.
    const double box = Triple(s, t, r);
    const double twist = Triple(s, st, sr) + Triple(st, t, tr) + Triple(sr, tr, r);
    return std::fabs(box / 64.0 + twist / 192.0);
}

// The cells of a chunk go through in batches: their corners first, stored by
// corner and then by cell, then each number of every cell of the batch in a
// loop of its own, which the compiler turns into vector instructions (two
// cells at once, each computed as alone).
constexpr int cellsPerBatch = 64;

struct Batch
{
    double x[8][cellsPerBatch], y[8][cellsPerBatch], z[8][cellsPerBatch];
};

} // namespace

Corners CellCorners(const CornerPointGrid& g, std::uint64_t c)
{
    Pillar pillar;
    return CornersOf(g, c % g.nI, c / g.nI % g.nJ, c / (g.nI * g.nJ), [&](std::uint64_t index) -> const Pillar& {
        pillar = PillarAt(g.coord + 6 * index);
        return pillar;
    });
}

double HexahedronVolume(const Corners& p)
{
    return VolumeOf([&p](int n) { return Vector{p.x[n], p.y[n], p.z[n]}; });
}

void CellGeometry(const CornerPointGrid& grid, const CellGeometryOut& out, unsigned threads)
{
    const std::uint64_t n = grid.nI * grid.nJ * grid.nK;
    std::vector<Pillar> pillars((grid.nI + 1) * (grid.nJ + 1));
    for (std::uint64_t index = 0; index < pillars.size(); ++index)
        pillars[index] = PillarAt(grid.coord + 6 * index);
    ParallelChunks(n, cellsPerChunk, threads, [&](std::uint64_t begin, std::uint64_t end) {
        Batch batch;
        std::uint64_t i = begin % grid.nI, j = begin / grid.nI % grid.nJ, k = begin / (grid.nI * grid.nJ);
        for (std::uint64_t first = begin; first < end; first += cellsPerBatch) {
            const int count = static_cast<int>(std::min<std::uint64_t>(cellsPerBatch, end - first));
            for (int b = 0; b < count; ++b) {
                const Corners p = CornersOf(grid, i, j, k, [&](std::uint64_t index) -> const Pillar& { return pillars[index]; });
                for (int m = 0; m < 8; ++m) {
                    batch.x[m][b] = p.x[m];
                    batch.y[m][b] = p.y[m];
                    batch.z[m][b] = p.z[m];
                }
                if (++i == grid.nI) { // the next cell, I fastest
                    i = 0;
                    if (++j == grid.nJ) {
                        j = 0;
                        ++k;
                    }
                }
            }
            const auto corners = [&batch](int b) {
                return [&batch, b](int m) { return Vector{batch.x[m][b], batch.y[m][b], batch.z[m][b]}; };
            };
            if (out.volumes != nullptr)
                for (int b = 0; b < count; ++b)
                    out.volumes[first + b] = VolumeOf(corners(b));
            if (out.depths != nullptr)
                for (int b = 0; b < count; ++b) {
                    double sum = 0.0;
                    for (int m = 0; m < 8; ++m)
                        sum += batch.z[m][b];
                    out.depths[first + b] = sum / 8.0;
                }
            double* const horizontal[2] = {out.dx, out.dy};
            for (int axis = 0; axis < 2; ++axis)
                if (horizontal[axis] != nullptr)
                    for (int b = 0; b < count; ++b) {
                        const Vector span = FaceSpan(corners(b), axis);
                        horizontal[axis][first + b] = std::sqrt(span.x * span.x + span.y * span.y);
                    }
            if (out.dz != nullptr)
                for (int b = 0; b < count; ++b)
                    out.dz[first + b] = std::fabs(FaceSpan(corners(b), 2).z);
        }
    });
}

} // namespace grid
} // namespace kavra
