#include "core/grid/CellGeometry.h"

#include <cmath>

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

// 8 a_m for the corners: the sum of the corners, each with the sign of the
// monomial m of (s, t, r) at that corner (s = +1 where di = 1, and so on).
// The signs of every m sum to zero, so the corners are taken relative to
// corner 0: differences of nearby numbers, exact however far the grid lies
// from the origin, where the corners themselves would lose their last
// digits to the sum.
Vector Coefficient(const Corners& p, int m)
{
    Vector sum{0.0, 0.0, 0.0};
    for (int n = 1; n < 8; ++n) {
        const int s = (n & 1) ? 1 : -1, t = (n & 2) ? 1 : -1, r = (n & 4) ? 1 : -1;
        // m: 1 s, 2 t, 3 r, 4 st, 5 tr, 6 sr
        const int sign = m == 1 ? s : m == 2 ? t : m == 3 ? r : m == 4 ? s * t : m == 5 ? t * r : s * r;
        const Vector d{p.x[n] - p.x[0], p.y[n] - p.y[0], p.z[n] - p.z[0]};
        if (sign > 0) {
            sum.x += d.x;
            sum.y += d.y;
            sum.z += d.z;
        } else {
            sum.x -= d.x;
            sum.y -= d.y;
            sum.z -= d.z;
        }
    }
    return sum;
}

constexpr std::uint64_t cellsPerChunk = 1 << 14;

// The centre of the cell's face where bit `axis` of the corner number is 1,
// less the centre of the face where it is 0.
Vector FaceSpan(const Corners& p, int axis)
{
    Vector span{0.0, 0.0, 0.0};
    for (int n = 0; n < 8; ++n) {
        const double sign = (n >> axis) & 1 ? 0.25 : -0.25;
        span.x += sign * p.x[n];
        span.y += sign * p.y[n];
        span.z += sign * p.z[n];
    }
    return span;
}

} // namespace

Corners CellCorners(const CornerPointGrid& g, std::uint64_t c)
{
    const std::uint64_t i = c % g.nI, j = (c / g.nI) % g.nJ, k = c / (g.nI * g.nJ);
    Corners p;
    for (int n = 0; n < 8; ++n) {
        const std::uint64_t di = n & 1, dj = (n >> 1) & 1, dk = (n >> 2) & 1;
        const double z = g.zcorn[(2 * k + dk) * 4 * g.nI * g.nJ + (2 * j + dj) * 2 * g.nI + 2 * i + di];
        const double* pillar = g.coord + 6 * ((j + dj) * (g.nI + 1) + i + di);
        p.z[n] = z;
        if (pillar[2] == pillar[5]) {
            p.x[n] = pillar[0];
            p.y[n] = pillar[1];
        } else { // the pillar's slope in x and y per unit of depth, times the depth above its top
            const double rise = pillar[2] - pillar[5], above = pillar[2] - z;
            p.x[n] = pillar[0] + (pillar[3] - pillar[0]) / rise * above;
            p.y[n] = pillar[1] + (pillar[4] - pillar[1]) / rise * above;
        }
    }
    return p;
}

double HexahedronVolume(const Corners& p)
{
    Vector e[7];
    for (int m = 1; m <= 6; ++m)
        e[m] = Coefficient(p, m);
    // With e_m = 8 a_m: V = [e1, e2, e3] / 64 + ([e1, e4, e6] + [e4, e2, e5] + [e6, e5, e3]) / 192.
    const double box = Triple(e[1], e[2], e[3]);
    const double twist = Triple(e[1], e[4], e[6]) + Triple(e[4], e[2], e[5]) + Triple(e[6], e[5], e[3]);
    return std::fabs(box / 64.0 + twist / 192.0);
}

void CellGeometry(const CornerPointGrid& grid, const CellGeometryOut& out, unsigned threads)
{
    const std::uint64_t n = grid.nI * grid.nJ * grid.nK;
    ParallelChunks(n, cellsPerChunk, threads, [&](std::uint64_t begin, std::uint64_t end) {
        for (std::uint64_t c = begin; c < end; ++c) {
            const Corners p = CellCorners(grid, c);
            if (out.volumes != nullptr)
                out.volumes[c] = HexahedronVolume(p);
            if (out.depths != nullptr) {
                double sum = 0.0;
                for (double z : p.z)
                    sum += z;
                out.depths[c] = sum / 8.0;
            }
            double* const horizontal[2] = {out.dx, out.dy};
            for (int axis = 0; axis < 2; ++axis)
                if (horizontal[axis] != nullptr) {
                    const Vector span = FaceSpan(p, axis);
                    horizontal[axis][c] = std::sqrt(span.x * span.x + span.y * span.y);
                }
            if (out.dz != nullptr)
                out.dz[c] = std::fabs(FaceSpan(p, 2).z);
        }
    });
}

} // namespace grid
} // namespace kavra
