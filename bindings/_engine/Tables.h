#pragma once

// The engine's region lists: built once from the numbers of kavra.tables'
// values (read-only float64 arrays per region) and never changed after, so
// the threads of every call read them as they are.
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include <nanobind/nanobind.h>

#include "core/pvt/RegionCells.h"
#include "core/types/Records.h"

namespace kavra {
namespace engine {

// The name of a region list type, as kavra.tables and the calculation list
// know it ("TPVTOList", ...).
template <class List>
const char* ListName();

class Tables
{
public:
    // `regions` holds one region per PVT region, in the form of kavra.tables
    // for the list `listName`; a region without rows is taken (a native
    // list may have one) and fails where a cell needs it.
    Tables(const std::string& listName, nanobind::handle regions);

    const std::string& Name() const { return m_name; }
    std::uint64_t Count() const { return m_empty.size(); }
    bool Empty(std::uint64_t pvtID) const { return m_empty[pvtID]; }
    bool AnyEmpty() const;

    // The list, when it is of the type List (nullptr otherwise).
    template <class List>
    const List* Get() const
    {
        return std::get_if<List>(&m_list);
    }

    // The list's tables flattened, once for all calls (core/pvt/RegionCells.h).
    FlatTablesKeeper& Flattened() const { return m_flattened; }

private:
    mutable FlatTablesKeeper m_flattened;
    std::string m_name;
    std::variant<TPVTList, TPVTOList, TPVTWList, TPVTGList, TRockList> m_list;
    std::vector<bool> m_empty;
};

// The field names of each list's records: {"TPVTOList": ("Rs", "P", "B",
// "Mi"), ...}, the key first for two-level rows.
nanobind::dict RecordFieldNames();

} // namespace engine
} // namespace kavra
