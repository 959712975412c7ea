// The volumetrics rows on plain memory, without Python: make native-test.
// Cells of each kind (gas cap, oil with dissolved gas, both phases with Rs and
// Rv, water, float32 saturations that leave an So of their rounding) give
// their parts and fluid zone; the rows of many blocks hold, column by column,
// the bits of region_totals' own kernel (totals::SumBlock) over the cells'
// values; inactive, masked and unnumbered cells take no part.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "core/reductions/RegionTotals.h"
#include "core/reductions/Volumetrics.h"
#include "tests/native/Expect.h"

namespace volumes = kavra::volumes;
namespace totals = kavra::totals;

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

// The rows (zones x regions x 3) of all blocks, combined as region_totals combines them.
struct Rows
{
    std::vector<double> out;       // column x row
    std::vector<std::uint64_t> cells;
    std::int64_t firstBadRatio = -1;
};

Rows Sum(const volumes::Cells& cells, std::uint64_t count)
{
    const std::uint64_t blocks = totals::Blocks(cells.n, count), stride = blocks * count;
    std::vector<double> sums(volumes::columns * stride), compensations(volumes::columns * stride);
    std::vector<std::uint64_t> partial(blocks * count);
    std::vector<std::int64_t> bad(blocks, -1);
    for (std::uint64_t b = blocks; b-- > 0;) // any order of the blocks gives the same rows
        volumes::SumBlock(cells, count, b, &sums[b * count], &compensations[b * count], stride, &partial[b * count],
                          bad[b]);
    Rows rows;
    rows.out.resize(volumes::columns * count);
    rows.cells.assign(count, 0);
    for (int j = 0; j < volumes::columns; ++j)
        totals::CombineBlocks(&sums[j * stride], &compensations[j * stride], blocks, count, &rows.out[j * count]);
    for (std::uint64_t b = 0; b < blocks; ++b) {
        for (std::uint64_t r = 0; r < count; ++r)
            rows.cells[r] += partial[b * count + r];
        if (rows.firstBadRatio < 0)
            rows.firstBadRatio = bad[b];
    }
    return rows;
}

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

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
        const std::vector<std::uint8_t> active(5, 1);
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
        EXPECT(key[0] == 2 && key[1] == 1 && key[3] == 3);
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

    // Many blocks of random cells in two zones by layer, five regions (with numbers outside,
    // masked and inactive cells): each row's column holds totals::SumBlock's bits of the
    // cells' values, taken from the tiles themselves.
    {
        const std::uint64_t n = 300001, layerCells = 1000;
        std::mt19937_64 random(7);
        std::uniform_real_distribution<double> uniform(-0.1, 1.1);
        std::vector<float> sw(n), sg(n), oil(n), gas(n), rs(n), porv(n);
        std::vector<double> rv(n), bulk(n), water(n), ntg = {0.9};
        std::vector<int> numbers(n);
        std::vector<std::uint8_t> active(n), masked(n);
        for (std::uint64_t c = 0; c < n; ++c) {
            sw[c] = float(uniform(random)), sg[c] = c % 7 == 0 ? 0.0f : float(uniform(random) / 2);
            oil[c] = float(1e3 * uniform(random)), gas[c] = float(1e5 * uniform(random));
            rs[c] = float(100.0 * uniform(random)), rv[c] = 1e-4 * uniform(random);
            porv[c] = float(uniform(random)), bulk[c] = 4.0 * uniform(random), water[c] = uniform(random);
            numbers[c] = int(c / 5000) % 7 - 1; // -1..5: -1 and 0 none, 5 past the table
            active[c] = c % 11 != 0;
            masked[c] = c % 13 == 0;
        }
        const std::vector<int> layers = [&] {
            std::vector<int> l(n / layerCells + 1);
            for (std::size_t k = 0; k < l.size(); ++k)
                l[k] = k < l.size() / 2 ? 0 : 1;
            return l;
        }();
        const std::vector<int> regionOf = {-1, 0, 1, 2, 3}; // numbers 1..4 in regions 0..3
        volumes::Cells cells;
        cells.n = n;
        cells.sw = Of(sw), cells.sg = Of(sg), cells.oil = Of(oil), cells.gas = Of(gas), cells.water = Of(water);
        cells.rs = Of(rs), cells.rv = Of(rv), cells.porv = Of(porv), cells.bulk = Of(bulk), cells.ntg = Of(ntg);
        cells.roundedSaturations = true;
        cells.active = active.data();
        cells.zones = {nullptr, nullptr, layers.data(), layers.size(), layerCells};
        cells.regions = {numbers.data(), masked.data(), regionOf.data(), regionOf.size(), 0};
        cells.regionCount = 4;
        for (std::uint64_t count : {std::uint64_t(2 * 4 * 3), std::uint64_t(40000)}) { // blocks of 2^16, 4 x count
            const Rows rows = Sum(cells, count);
            std::vector<double> values[volumes::columns];
            std::vector<int> keys(n);
            for (auto& v : values)
                v.resize(n);
            for (std::uint64_t tile = 0; tile < n; tile += volumes::tileCells) {
                const std::uint64_t size = std::min(volumes::tileCells, n - tile);
                double column[volumes::columns][volumes::tileCells];
                std::int64_t bad = -1;
                volumes::TileColumns(cells, tile, size, column, &keys[tile], bad);
                volumes::TileKeys(cells, tile, size, &keys[tile]);
                for (int j = 0; j < volumes::columns; ++j)
                    std::copy(column[j], column[j] + size, &values[j][tile]);
            }
            std::uint64_t taking = 0;
            for (std::uint64_t c = 0; c < n; ++c) {
                const bool takes = active[c] && !masked[c] && numbers[c] >= 1 && numbers[c] <= 4;
                EXPECT((keys[c] != 0) == takes);
                taking += takes;
            }
            std::uint64_t counted = 0;
            for (std::uint64_t r = 0; r < count; ++r)
                counted += rows.cells[r];
            EXPECT(counted == taking);
            for (int j = 0; j < volumes::columns; ++j) {
                const std::uint64_t blocks = totals::Blocks(n, count);
                std::vector<double> sums(blocks * count), compensations(blocks * count), expected(count);
                for (std::uint64_t b = 0; b < blocks; ++b)
                    totals::SumBlock(values[j].data(), keys.data(), false, n, count, b, &sums[b * count],
                                     &compensations[b * count]);
                totals::CombineBlocks(sums.data(), compensations.data(), blocks, count, expected.data());
                for (std::uint64_t r = 0; r < count; ++r)
                    EXPECT(SameBits(rows.out[j * count + r], expected[r]));
            }
        }
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
