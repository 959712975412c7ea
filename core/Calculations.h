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

// kavra.blackoil: the properties as the simulator evaluates them.
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
