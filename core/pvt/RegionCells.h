#pragma once

// The cell walk that every PVT calculation shares: the grid functions
// reached by dispatch, the cells taken in runs of one region, each region's
// checks made once per run, and each cell computed by the calculation's
// rule on the model of its region's table (flattened where it could be,
// else the table in place; core/pvt/TableModels.h).
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <tuple>
#include <typeindex>
#include <type_traits>
#include <utility>

#include "core/pvt/TableModels.h"
#include "core/utils/Failure.h"
#include "core/utils/GridFunctionAccess.h"

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

// The flattened tables of one list that never changes, kept for every call
// over it: its owner (the engine's tables) sets flatTablesKept on the
// threads of a call, and CalculateByRegion then flattens the list once, not
// at each call (or chunk of a call).  Unset, every call flattens its own.
class FlatTablesKeeper
{
public:
    template <class Flat, class List>
    const FlatRegions<Flat>& Get(const List& list)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::shared_ptr<void>& kept = m_flat[std::make_pair(std::type_index(typeid(Flat)), &list)];
        if (!kept)
            kept = std::make_shared<FlatRegions<Flat>>(list);
        return *static_cast<const FlatRegions<Flat>*>(kept.get());
    }

private:
    std::mutex m_mutex;
    std::map<std::pair<std::type_index, const void*>, std::shared_ptr<void>> m_flat;
};

inline thread_local FlatTablesKeeper* flatTablesKept = nullptr;

namespace detail {

// Cells begin..end-1 of one region: each reads its inputs in argument
// order, then gets rule(model, inputs...).  A small model is taken by value,
// so that the stores of the results cannot be taken to change it.
template <class Model, class Rule, class Accesses, std::size_t... I>
void WriteCells(std::conditional_t<std::is_trivially_copyable<Model>::value, const Model, const Model&> model,
                const Rule& rule, std::uint64_t begin, std::uint64_t end, const Accesses& accesses,
                std::index_sequence<I...>)
{
    const auto& result = std::get<sizeof...(I)>(accesses);
    for (std::uint64_t h = begin; h < end; ++h) {
        const std::array<double, sizeof...(I)> inputs{{static_cast<double>(std::get<I>(accesses).get(h))...}};
        result.set(h, rule(model, inputs[I]...));
    }
}

} // namespace detail

// Runs a PVT calculation once its arguments are checked.  `regions` holds
// the region numbers, the last of `gridFunctions` is the result and the
// others are the inputs; `types` are the element types of the calculation's
// array variants.  At the first cell of a run of a region,
// `regionTable(list, pvtID)` makes the calculation's checks of the region
// and gives its table (or record); every cell of the run then gets
// `rule(model, inputs...)`, the model being the table flattened as `Flat`
// where it could be, else the table in place.
template <class Flat, auto regionTable, class... T, class List, class Rule, class... GridFunctions>
void CalculateByRegion(ElementTypes<T...> types, const List& list, const Rule& rule, std::uint64_t nElts,
                       const GridFunctionPtr& regions, const GridFunctions&... gridFunctions)
{
    DispatchGridFunctions(
        types,
        [&](auto regionNumbers, auto... access) {
            typedef typename List::value_type Table;
            typedef typename Flat::template InPlace<Table> InPlace;
            std::optional<FlatRegions<Flat>> own;
            const FlatRegions<Flat>& flat =
                flatTablesKept ? flatTablesKept->Get<Flat>(list) : own.emplace(list);
            const auto accesses = std::make_tuple(access...);
            const auto inputs = std::make_index_sequence<sizeof...(access) - 1>();
            // The region of the run before: checked already, and the checks
            // of one region always end alike (nothing changes the tables
            // during a call).  Runs of one cell, as through accessors, make
            // this the common case.
            std::uint64_t checked = 0;
            const Table* table = nullptr;
            ForEachRegionRun(regionNumbers, std::get<sizeof...(access) - 1>(accesses), nElts,
                             [&](std::uint64_t pvtID, std::uint64_t begin, std::uint64_t end) {
                if (table == nullptr || pvtID != checked) {
                    try {
                        table = &regionTable(list, pvtID);
                    } catch (IHeaderException& failure) { // the region is checked at the run's first cell
                        failure.failure.cell = static_cast<std::int64_t>(begin);
                        throw;
                    }
                    checked = pvtID;
                }
                if (const Flat* model = flat[pvtID])
                    detail::WriteCells<Flat>(*model, rule, begin, end, accesses, inputs);
                else
                    detail::WriteCells<InPlace>(InPlace(*table), rule, begin, end, accesses, inputs);
            });
        },
        RegionNumbers{regions}, gridFunctions...);
}

} // namespace kavra
