// Cell volumes and depths of corner-point grids, without Python: make native-test.
// The volume against an independent one (Gauss quadrature of the trilinear map's
// Jacobian, exact for its polynomial degree) on distorted cells; corners read
// off tilted pillars; the same bits on any number of threads.
#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "core/grid/CellGeometry.h"
#include "tests/native/Expect.h"

using namespace kavra::grid;

static bool Near(double a, double b, double relative)
{
    return std::fabs(a - b) <= relative * std::fabs(b);
}

// The volume by 3-point Gauss-Legendre quadrature of det J over the unit cube (corners
// taken relative to corner 0).
static double QuadratureVolume(const Corners& p)
{
    const double nodes[3] = {0.5 - 0.5 * std::sqrt(0.6), 0.5, 0.5 + 0.5 * std::sqrt(0.6)};
    const double weights[3] = {5.0 / 18.0, 8.0 / 18.0, 5.0 / 18.0};
    double volume = 0.0;
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b)
            for (int c = 0; c < 3; ++c) {
                const double u[3] = {nodes[a], nodes[b], nodes[c]};
                double jac[3][3] = {}; // jac[d][axis]: d/d(axis) of coordinate d
                for (int n = 0; n < 8; ++n) {
                    const int bit[3] = {n & 1, (n >> 1) & 1, (n >> 2) & 1};
                    const double* xyz[3] = {p.x, p.y, p.z};
                    for (int axis = 0; axis < 3; ++axis) {
                        double shape = bit[axis] ? 1.0 : -1.0;
                        for (int other = 0; other < 3; ++other)
                            if (other != axis)
                                shape *= bit[other] ? u[other] : 1.0 - u[other];
                        for (int d = 0; d < 3; ++d)
                            jac[d][axis] += shape * (xyz[d][n] - xyz[d][0]);
                    }
                }
                const double det = jac[0][0] * (jac[1][1] * jac[2][2] - jac[1][2] * jac[2][1]) -
                                   jac[0][1] * (jac[1][0] * jac[2][2] - jac[1][2] * jac[2][0]) +
                                   jac[0][2] * (jac[1][0] * jac[2][1] - jac[1][1] * jac[2][0]);
                volume += weights[a] * weights[b] * weights[c] * det;
            }
    return std::fabs(volume);
}

int main()
{
    // A box and a sheared box: the exact volumes.
    Corners box;
    for (int n = 0; n < 8; ++n) {
        box.x[n] = 100.0 * (n & 1);
        box.y[n] = 50.0 * ((n >> 1) & 1);
        box.z[n] = 2000.0 + 10.0 * ((n >> 2) & 1);
    }
    EXPECT(HexahedronVolume(box) == 50000.0);
    Corners sheared = box;
    for (int n = 4; n < 8; ++n)
        sheared.x[n] += 30.0; // the base shifted: a parallelepiped of the same volume
    EXPECT(Near(HexahedronVolume(sheared), 50000.0, 1e-15));

    // Distorted cells, with non-planar faces, far from the origin.
    std::mt19937_64 random(7);
    std::normal_distribution<double> wobble(0.0, 0.2);
    for (int trial = 0; trial < 1000; ++trial) {
        Corners p;
        for (int n = 0; n < 8; ++n) {
            p.x[n] = 4.5e5 + 100.0 * ((n & 1) + wobble(random));
            p.y[n] = 6.7e6 + 80.0 * (((n >> 1) & 1) + wobble(random));
            p.z[n] = 1800.0 + 5.0 * (((n >> 2) & 1) + wobble(random)) + 30.0 * (n & 1);
        }
        EXPECT(Near(HexahedronVolume(p), QuadratureVolume(p), 1e-9));
    }

    // A 3 x 2 x 2 grid on tilted pillars, zcorn of faulted columns.
    const std::uint64_t nI = 3, nJ = 2, nK = 2;
    std::vector<double> coord, zcorn(8 * nI * nJ * nK);
    for (std::uint64_t j = 0; j <= nJ; ++j)
        for (std::uint64_t i = 0; i <= nI; ++i)
            coord.insert(coord.end(), {100.0 * i, 100.0 * j, 1000.0, 100.0 * i + 20.0, 100.0 * j - 10.0, 1100.0});
    for (std::uint64_t z = 0; z < zcorn.size(); ++z) {
        const std::uint64_t layer = z / (4 * nI * nJ), i2 = z % (2 * nI);
        zcorn[z] = 1000.0 + 10.0 * ((layer + 1) / 2) + 5.0 * (i2 / 2) + (i2 % 2 ? 2.0 : 0.0);
    }
    const CornerPointGrid grid{nI, nJ, nK, coord.data(), zcorn.data()};
    const Corners last = CellCorners(grid, 11); // i 2, j 1, k 1: corner 7 on pillar (3, 2) at z 1022
    EXPECT(last.z[7] == 1000.0 + 20.0 + 10.0 + 2.0);
    EXPECT(Near(last.x[7], 300.0 + 20.0 * 0.32, 1e-15) && Near(last.y[7], 200.0 - 10.0 * 0.32, 1e-15));
    std::vector<double> volumes(12), depths(12), dx(12), dy(12), dz(12);
    CellGeometry(grid, CellGeometryOut{volumes.data(), depths.data(), dx.data(), dy.data(), dz.data()}, 1);
    for (std::uint64_t c = 0; c < 12; ++c) {
        const Corners p = CellCorners(grid, c);
        EXPECT(volumes[c] == HexahedronVolume(p) && Near(volumes[c], QuadratureVolume(p), 1e-12));
        double sum = 0.0;
        for (double z : p.z)
            sum += z;
        EXPECT(depths[c] == sum / 8.0);
    }
    EXPECT(depths[0] == (4 * 1001.0 + 4 * 1011.0) / 8.0);
    // Cell 0: DX the horizontal distance between its I faces' centres, DZ its pillars' mean thickness.
    const Corners first = CellCorners(grid, 0);
    double spanX = 0.0, spanY = 0.0;
    for (int n = 0; n < 8; ++n) {
        spanX += (n & 1 ? 0.25 : -0.25) * first.x[n];
        spanY += (n & 1 ? 0.25 : -0.25) * first.y[n];
    }
    EXPECT(Near(dx[0], std::sqrt(spanX * spanX + spanY * spanY), 1e-15) && Near(dx[0], 100.0, 0.05));
    EXPECT(dz[0] == 10.0 && Near(dy[0], 100.0, 0.01));

    // A large grid: the same bits on one thread and on several.
    const std::uint64_t big = 60;
    std::vector<double> bigCoord, bigZcorn(8 * big * big * 10);
    for (std::uint64_t j = 0; j <= big; ++j)
        for (std::uint64_t i = 0; i <= big; ++i)
            bigCoord.insert(bigCoord.end(), {50.0 * i, 50.0 * j, 0.0, 50.0 * i + 0.1 * j, 50.0 * j, 100.0});
    for (std::uint64_t z = 0; z < bigZcorn.size(); ++z)
        bigZcorn[z] = 1000.0 + 3.0 * ((z / (4 * big * big) + 1) / 2) + 0.01 * (z % 97);
    const CornerPointGrid large{big, big, 10, bigCoord.data(), bigZcorn.data()};
    std::vector<double> one(big * big * 10), many(big * big * 10);
    CellGeometryOut onOne, onMany;
    onOne.volumes = one.data();
    onMany.volumes = many.data();
    CellGeometry(large, onOne, 1);
    CellGeometry(large, onMany, 4);
    EXPECT(one == many);

    std::printf("%s\n", failures ? "FAILED" : "cell geometry: ok");
    return failures ? 1 : 0;
}
