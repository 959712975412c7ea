#pragma once

// Message items of the checks that state what failed as data
// (kavra::Failure), each printing its part of the message text.
#include <cstdint>
#include <ostream>

#include "core/utils/Precondition.h"

namespace kavra {

// "Wrong PVT region number: <pvtID>, valid interval [0, <count - 1>]." with
// the upper bound in unsigned arithmetic (an empty list shows 2^64 - 1).
struct WrongRegion : FailureItem
{
    WrongRegion(std::uint64_t pvtID_, std::uint64_t count_) : pvtID(pvtID_), count(count_) {}
    std::uint64_t pvtID;
    std::uint64_t count;
    Failure Facts() const { return Failure{Failure::region_past_list, pvtID, count, -1}; }
};

inline std::ostream& operator<<(std::ostream& os, const WrongRegion& wrong)
{
    return os << "Wrong PVT region number: " << wrong.pvtID << ", valid interval [0, " << wrong.count - 1 << "].";
}

// The rock calculation's wording of the same failure, at a known cell:
// "Invalid PVT region number: <pvtID>, valid interval is [0, <count - 1>]."
struct InvalidRegion : FailureItem
{
    InvalidRegion(std::uint64_t pvtID_, std::uint64_t count_, std::uint64_t cell_)
        : pvtID(pvtID_), count(count_), cell(cell_)
    {
    }
    std::uint64_t pvtID;
    std::uint64_t count;
    std::uint64_t cell;
    Failure Facts() const
    {
        return Failure{Failure::region_past_list, pvtID, count, static_cast<std::int64_t>(cell)};
    }
};

inline std::ostream& operator<<(std::ostream& os, const InvalidRegion& wrong)
{
    return os << "Invalid PVT region number: " << wrong.pvtID << ", valid interval is [0, " << wrong.count - 1
              << "].";
}

// A region whose table has no rows; `text` is the calculation's own words.
struct EmptyTable : FailureItem
{
    EmptyTable(const char* text_, std::uint64_t pvtID_) : text(text_), pvtID(pvtID_) {}
    const char* text;
    std::uint64_t pvtID;
    Failure Facts() const { return Failure{Failure::empty_table, pvtID, 0, -1}; }
};

inline std::ostream& operator<<(std::ostream& os, const EmptyTable& empty)
{
    return os << empty.text;
}

// A connection within one column that does not run down across two layers.
struct StrangePinchOut : FailureItem
{
    explicit StrangePinchOut(const char* text_) : text(text_) {}
    const char* text;
    Failure Facts() const { return Failure{Failure::pinch_out, 0, 0, -1}; }
};

inline std::ostream& operator<<(std::ostream& os, const StrangePinchOut& pinch)
{
    return os << pinch.text;
}

} // namespace kavra
