#pragma once

#include <cstdint>
#include <ostream>

namespace kavra {

// Walks the cells 0..nElts-1 of a PVT calculation.  A cell whose region
// number is below 1 belongs to no region and gets 0.0; every other cell gets
// what `cell(h, pvtID)` returns, pvtID being the region number minus 1.  A
// check that fails inside `cell` leaves that cell and all later ones
// unwritten.
template <class Regions, class Result, class Cell>
void ForEachRegionCell(Regions regions, Result result, std::uint64_t nElts, Cell cell)
{
    for (std::uint64_t h = 0; h < nElts; ++h) {
        const int region = regions.get(h);
        if (region < 1) {
            result.set(h, 0.0);
            continue;
        }
        result.set(h, cell(h, static_cast<std::uint64_t>(region) - 1));
    }
}

// "Wrong PVT region number: <pvtID>, valid interval [0, <count - 1>]." with
// the upper bound in unsigned arithmetic (an empty list shows 2^64 - 1).
struct WrongRegion
{
    std::uint64_t pvtID;
    std::uint64_t count;
};

inline std::ostream& operator<<(std::ostream& os, const WrongRegion& wrong)
{
    return os << "Wrong PVT region number: " << wrong.pvtID << ", valid interval [0, " << wrong.count - 1 << "].";
}

} // namespace kavra
