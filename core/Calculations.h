#pragma once

// The cell calculations, each described once.  From this list come the
// registration of the _kavracore functions (in this order, which is the
// module's), the engine's calculations (bindings/_engine), and through the
// engine the Python layer's table of calls (kavra.calculations).
//
//   CELL(name, entry, List, inputs, kavracore)
//     name       the calculation's name in the engine and in kavra
//     entry      the core function kavra::<entry>
//     List       the region list it takes first (then the region numbers), or
//                NoTables for a calculation without tables
//     inputs     the number of grid functions between the region numbers (or
//                the start) and the result, which comes last
//     kavracore  1: also a function of _kavracore, named <entry>; 0: the
//                engine's alone (_kavracore's names are fixed: a new
//                calculation has 0)
//   OTHER(entry)
//     a _kavracore function that is no cell calculation, at its place
//
// Each CELL line is checked where the list is (at the end of this file): a
// count of inputs that its core function does not take over List fails to
// compile with the calculation's name, the count written and the counts the
// function takes.
//
// A core function that also takes EngineVariants as its first argument
// (core/utils/ElementTypes.h) runs in the engine with those variants: float
// inputs, read as they are.
#include "core/blackoil/Gas.h"
#include "core/blackoil/Oil.h"
#include "core/blackoil/Water.h"
#include "core/pvt/BubblePointPressure.h"
#include "core/pvt/Interpolation.h"
#include "core/pvt/OneOverB.h"
#include "core/pvt/OneOverBg.h"
#include "core/pvt/OneOverBo.h"
#include "core/pvt/OneOverBw.h"
#include "core/pvt/RsFromComponents.h"
#include "core/rock/BulkVolume.h"
#include "core/rock/Porosity.h"
#include "core/vadra/TransmissibilityK.h"

#define KAVRA_CALCULATIONS(CELL, OTHER)                                      \
    CELL(bubble_point_pressure, CalcBubblePointPressure, TPVTOList, 1, 1)    \
    CELL(one_over_b, CalcOneOverB, TPVTList, 1, 1)                           \
    OTHER(InterpolateB)                                                      \
    CELL(one_over_bo, CalcOneOverBo, TPVTOList, 2, 1)                        \
    CELL(one_over_bw, CalcOneOverBw, TPVTWList, 1, 1)                        \
    CELL(one_over_bg, CalcOneOverBg, TPVTGList, 3, 1)                        \
    CELL(porosity, CalcPorosity, TRockList, 2, 1)                            \
    CELL(porosity_from_porv, CalcPorosityFromPORV, NoTables, 2, 1)           \
    CELL(bulk_volume_times_ntg, CalcBulkVolume, NoTables, 1, 1)              \
    CELL(bulk_volume, CalcBulkVolume, NoTables, 2, 1)                        \
    OTHER(CalcTransmissibilityK)                                             \
    CELL(rs_from_components, CalcRsFromComponents, NoTables, 2, 1)          \
    KAVRA_BLACKOIL_CALCULATIONS(CELL)

// kavra.blackoil: the properties as the simulator evaluates them.  A
// calculation over tables here is written with KAVRA_BLACKOIL_ENTRIES
// (core/blackoil/Cells.h), which takes at most two inputs (three grid
// functions with the result) and says so when given more; one with more is
// written out by hand, as CalcDensityFromB is.
#define KAVRA_BLACKOIL_CALCULATIONS(CELL)                                     \
    CELL(live_oil_one_over_b, CalcLiveOilOneOverB, TPVTOList, 2, 0)          \
    CELL(live_oil_viscosity, CalcLiveOilViscosity, TPVTOList, 2, 0)          \
    CELL(saturated_rs, CalcSaturatedRs, TPVTOList, 1, 0)                     \
    CELL(bubble_point, CalcBubblePoint, TPVTOList, 1, 0)                     \
    CELL(dead_fluid_one_over_b, CalcDeadFluidOneOverB, TPVTList, 1, 0)       \
    CELL(dead_fluid_viscosity, CalcDeadFluidViscosity, TPVTList, 1, 0)       \
    CELL(wet_gas_one_over_b, CalcWetGasOneOverB, TPVTGList, 2, 0)            \
    CELL(wet_gas_viscosity, CalcWetGasViscosity, TPVTGList, 2, 0)            \
    CELL(saturated_rv, CalcSaturatedRv, TPVTGList, 1, 0)                     \
    CELL(dew_point, CalcDewPoint, TPVTGList, 1, 0)                           \
    CELL(water_one_over_b, CalcWaterOneOverB, TPVTWList, 1, 0)               \
    CELL(water_viscosity, CalcWaterViscosity, TPVTWList, 1, 0)               \
    CELL(pore_volume_multiplier, CalcPoreVolumeMultiplier, TRockList, 1, 0)  \
    CELL(density_from_b, CalcDensityFromB, NoTables, 4, 0)

#include <cstddef>
#include <type_traits>
#include <utility>

namespace kavra {

// The List of a calculation without tables.
struct NoTables
{
};

namespace detail {

template <std::size_t>
using AGridFunction = GridFunctionPtr;

template <class List, class Inputs>
struct CalcPointer;

template <class List, std::size_t... I>
struct CalcPointer<List, std::index_sequence<I...>>
{
    typedef void (*type)(const List&, GridFunctionPtr, AGridFunction<I>..., GridFunctionPtr);
};

template <std::size_t... I>
struct CalcPointer<NoTables, std::index_sequence<I...>>
{
    typedef void (*type)(AGridFunction<I>..., GridFunctionPtr);
};

} // namespace detail

// The type of the core function of a calculation over List with `inputs`
// inputs: what picks it among the overloads of its name.
template <class List, std::size_t inputs>
using CalcPointer = typename detail::CalcPointer<List, std::make_index_sequence<inputs>>::type;

} // namespace kavra

// The overloads of the core function kavra::<entry> as one generic callable:
// it takes what one of them takes.
#define KAVRA_OVERLOADS(entry)                                                     \
    [](auto&&... a) -> decltype(kavra::entry(std::forward<decltype(a)>(a)...)) { \
        return kavra::entry(std::forward<decltype(a)>(a)...);                      \
    }

namespace kavra {
namespace detail {

// Whether `entry` takes sizeof...(I) inputs over List: the list and the
// region numbers first (unless NoTables), the result last.
template <class List, class Entry, std::size_t... I>
constexpr bool TakesInputs(Entry, std::index_sequence<I...>)
{
    if constexpr (std::is_same<List, NoTables>::value)
        return std::is_invocable<Entry, AGridFunction<I>..., GridFunctionPtr>::value;
    else
        return std::is_invocable<Entry, const List&, GridFunctionPtr, AGridFunction<I>..., GridFunctionPtr>::value;
}

// The counts of inputs below sizeof...(N) that `entry` takes over List, a bit each.
template <class List, class Entry, std::size_t... N>
constexpr unsigned InputCounts(Entry entry, std::index_sequence<N...>)
{
    return ((TakesInputs<List>(entry, std::make_index_sequence<N>()) ? 1u << N : 0u) | ...);
}

} // namespace detail

// The check of the lines of the list, in types whose names are the words of
// its error: a line of one_over_bo that writes 3 inputs, where
// kavra::CalcOneOverBo takes 2, fails in the instantiation of
// Line<one_over_bo, inputs_written<3>, inputs_its_core_function_takes<2>>.
namespace calculation_list {

template <std::size_t count>
struct inputs_written
{
};

template <std::size_t... counts>
struct inputs_its_core_function_takes
{
};

// inputs_its_core_function_takes<...> of the counts whose bits `mask` has.
template <unsigned mask, std::size_t count = 0, std::size_t... found>
struct CountsIn
{
    typedef typename std::conditional<(mask & 1u) != 0, CountsIn<(mask >> 1), count + 1, found..., count>,
                                      CountsIn<(mask >> 1), count + 1, found...>>::type::type type;
};
template <std::size_t count, std::size_t... found>
struct CountsIn<0, count, found...>
{
    typedef inputs_its_core_function_takes<found...> type;
};

template <class Calculation, class Written, class Takes>
struct Line;
template <class Calculation, std::size_t written, std::size_t... takes>
struct Line<Calculation, inputs_written<written>, inputs_its_core_function_takes<takes...>>
{
    static_assert(((written == takes) || ...),
                  "a CELL line of core/Calculations.h writes a count of inputs that its core function does not take "
                  "over its List: kavra::calculation_list::Line<calculation, inputs_written<count>, "
                  "inputs_its_core_function_takes<counts...>> above names them");
    static constexpr bool checked = true;
};

// A tag named after the calculation, whose takes() are the counts of inputs
// (below 8) of its core function, and the check of its line.
#define KAVRA_CHECK_CELL(name, entry, List, inputs, kavracore)                                               \
    struct name                                                                                              \
    {                                                                                                        \
        static constexpr unsigned takes()                                                                    \
        {                                                                                                    \
            return detail::InputCounts<List>(KAVRA_OVERLOADS(entry), std::make_index_sequence<8>());         \
        }                                                                                                    \
    };                                                                                                       \
    static_assert(Line<name, inputs_written<inputs>, CountsIn<name::takes()>::type>::checked, "");
#define KAVRA_CHECK_OTHER(entry)
KAVRA_CALCULATIONS(KAVRA_CHECK_CELL, KAVRA_CHECK_OTHER)
#undef KAVRA_CHECK_CELL
#undef KAVRA_CHECK_OTHER

} // namespace calculation_list
} // namespace kavra
