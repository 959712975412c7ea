// The volumetrics rows on plain memory, without Python: make native-test.
// Cells of each kind (gas cap, oil with dissolved gas, both phases with Rs and
// Rv, water, float32 saturations that leave an So of their rounding) give
// their parts, fluid zone and row; a block adds each row's cells into it.
// (tests/test_maps.py holds the rows of many blocks and threads against
// region_totals, bit for bit.)
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "core/reductions/Volumetrics.h"
#include "tests/native/Expect.h"

namespace volumes = kavra::volumes;

namespace {

volumes::Values Of(const std::vector<double>& values)
{
    volumes::Values v;
    v.data = values.data();
    v.one = values.size() == 1;
    return v;
}

volumes::Values Of(const std::vector<float>& values)
{
    volumes::Values v;
    v.data = values.data();
    v.single = true;
    v.one = values.size() == 1;
    return v;
}

} // namespace

int main()
{
    // Five cells of one region and zone, one value for every cell of the volumes.
    {
        const std::vector<double> sw = {0.2, 0.2, 0.2, 1.0, 0.1}, sg = {0.8, 0.0, 0.4, 0.0, 0.2};
        // gas cap (oil all vaporised), oil (gas all dissolved), both phases (L 8, F 4), water, Rs x Rv = 1
        const std::vector<double> oil = {3.0, 10.0, 9.0, 0.0, 1.0}, gas = {50.0, 6.0, 8.0, 0.0, 1.0};
        const std::vector<double> rs = {0.5, 0.6, 0.5, 0.5, 2.0}, rv = {0.25, 0.25, 0.25, 0.25, 0.5};
        const std::vector<double> water = {1.0}, porv = {2.0}, bulk = {8.0}, ntg = {0.5};
        const std::vector<int> layers = {0}, regionOf = {-1, 0};
        const std::vector<int> regions(5, 1);
        std::vector<std::uint8_t> active(5, 1);
        volumes::Cells cells;
        cells.n = 5;
        cells.sw = Of(sw), cells.sg = Of(sg), cells.oil = Of(oil), cells.gas = Of(gas), cells.water = Of(water);
        cells.rs = Of(rs), cells.rv = Of(rv), cells.porv = Of(porv), cells.bulk = Of(bulk), cells.ntg = Of(ntg);
        cells.active = active.data();
        cells.zones = {nullptr, nullptr, layers.data(), 1, 5};
        cells.regions = {regions.data(), nullptr, regionOf.data(), 2, 0};
        cells.regionCount = 1;
        double column[volumes::columns][volumes::tileCells];
        int key[volumes::tileCells];
        std::int64_t bad = -1;
        volumes::TileColumns(cells, 0, 5, column, key, bad);
        EXPECT(bad == 4);
        // the gas cap: no liquid, so the free gas is the whole gas and its oil is vaporised
        EXPECT(key[0] == volumes::gasZone && column[volumes::stoiip][0] == 0.0 && column[volumes::giip][0] == 50.0 &&
               column[volumes::associatedOil][0] == 3.0 && column[volumes::hcpv][0] == 1.6);
        // the oil zone: no free gas, so the liquid is the whole oil and its gas is dissolved
        EXPECT(key[1] == volumes::oilZone && column[volumes::stoiip][1] == 10.0 &&
               column[volumes::associatedGas][1] == 6.0 && column[volumes::giip][1] == 0.0);
        // both: oil = L + F Rv, gas = F + L Rs
        EXPECT(key[2] == volumes::gasZone && column[volumes::stoiip][2] == 8.0 && column[volumes::giip][2] == 4.0 &&
               column[volumes::associatedOil][2] == 1.0 && column[volumes::associatedGas][2] == 4.0);
        EXPECT(key[3] == volumes::waterZone && column[volumes::hcpv][3] == 0.0 && column[volumes::wiip][3] == 1.0);
        EXPECT(column[volumes::net][0] == 4.0 && column[volumes::bulk][4] == 8.0 && column[volumes::porv][4] == 2.0);
        // zone 0, region 0: rows 1..3 are its oil, gas and water
        volumes::TileKeys(cells, 0, 5, key);
        EXPECT(key[0] == 2 && key[1] == 1 && key[3] == 3 && key[4] == 1);
        // a block adds each row's cells (the water cell made inactive: no part)
        const std::uint64_t rows = 3, stride = rows;
        std::vector<double> sums(volumes::columns * rows), compensations(volumes::columns * rows);
        std::vector<std::uint64_t> rowCells(rows);
        active[3] = 0;
        bad = -1;
        volumes::SumBlock(cells, rows, 0, sums.data(), compensations.data(), stride, rowCells.data(), bad);
        EXPECT((rowCells == std::vector<std::uint64_t>{2, 2, 0}) && bad == 4);
        EXPECT(sums[volumes::stoiip * stride + 0] == 11.0 && sums[volumes::giip * stride + 1] == 54.0 &&
               sums[volumes::bulk * stride + 2] == 0.0 && sums[volumes::net * stride + 1] == 8.0);
    }

    // float32 saturations 0.1 and 0.9 leave an So of their rounding (2.2e-8): 0 where they are float32's.
    for (bool rounded : {false, true}) {
        const std::vector<float> sw = {0.1f}, sg = {0.9f}, oil = {1.0f}, gas = {2.0f}, zero = {0.0f}, one = {1.0f};
        const std::vector<int> layers = {0}, regionOf = {0};
        const std::vector<std::uint8_t> active = {1};
        volumes::Cells cells;
        cells.n = 1;
        cells.sw = Of(sw), cells.sg = Of(sg), cells.oil = Of(oil), cells.gas = Of(gas), cells.water = Of(zero);
        cells.porv = Of(one), cells.bulk = Of(one), cells.ntg = Of(one);
        cells.roundedSaturations = rounded;
        cells.active = active.data();
        double column[volumes::columns][volumes::tileCells];
        int key[volumes::tileCells];
        std::int64_t bad = -1;
        volumes::TileColumns(cells, 0, 1, column, key, bad);
        const double so = (1.0 - double(0.1f)) - double(0.9f);
        EXPECT(so > 0.0 && so < 1.0 / 8388608.0);
        // an oil saturation holds the liquid; none leaves the cell's oil vaporised in its gas
        EXPECT(column[volumes::stoiip][0] == (rounded ? 0.0 : 1.0) && key[0] == volumes::gasZone);
        EXPECT(bad == -1);
    }

    // The count of each number, masked cells and numbers outside left out.
    {
        const std::vector<int> numbers = {0, 1, 1, 3, -2, 7, 3, 3};
        const std::vector<std::uint8_t> masked = {0, 0, 1, 0, 0, 0, 0, 0};
        std::vector<std::uint64_t> counts(4, 0);
        volumes::CountNumbers(numbers.data(), masked.data(), 4, 0, numbers.size(), counts.data());
        EXPECT((counts == std::vector<std::uint64_t>{1, 1, 0, 3}));
    }

    if (failures == 0)
        std::printf("volumetrics: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
