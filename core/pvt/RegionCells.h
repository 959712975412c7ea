#pragma once

#include <cstdint>
#include <ostream>

namespace kavra {

// Walks the cells 0..nElts-1 of a PVT calculation in runs of cells with
// one region number.  A run whose region number is below 1 belongs to no
// region and gets 0.0; every other run is handed to
// `run(pvtID, begin, end)`, pvtID being the region number minus 1, which
// writes cells begin..end-1 in ascending order.  A check that fails inside
// `run` at a cell leaves that cell and all later ones unwritten.
//
// Region numbers of an array are read ahead to find the end of a run; a
// grid function read through its accessors makes runs of one cell, so that
// every cell's accessor calls keep their order.
template <class Regions, class Result, class Run>
void ForEachRegionRun(Regions regions, Result result, std::uint64_t nElts, Run run)
{
    std::uint64_t h = 0;
    while (h < nElts) {
        const int region = regions.get(h);
        std::uint64_t end = h + 1;
        if (Regions::readAhead)
            while (end < nElts && regions.get(end) == region)
                ++end;
        if (region < 1) {
            for (; h < end; ++h)
                result.set(h, 0.0);
            continue;
        }
        run(static_cast<std::uint64_t>(region) - 1, h, end);
        h = end;
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
