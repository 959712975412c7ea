#pragma once

// Oil as the simulator evaluates it: live oil (PVTO) as a table in Rs and
// pressure, dead oil and dry gas (PVDO, PVDG) as lines in pressure, each of
// 1/B and 1/(B mu) (the viscosity is their ratio).  Cells of region below 1
// get 0.0.
#include "core/blackoil/Declare.h"

namespace kavra {

// 1/Bo and oil viscosity of live oil at (P, Rs).
KAVRA_BLACKOIL_DECLARE(CalcLiveOilOneOverB, TPVTOList, GridFunctionPtr p, GridFunctionPtr rs, GridFunctionPtr result)
KAVRA_BLACKOIL_DECLARE(CalcLiveOilViscosity, TPVTOList, GridFunctionPtr p, GridFunctionPtr rs, GridFunctionPtr result)
// Rs of saturated oil at P, and the bubble point of oil of a given Rs.
KAVRA_BLACKOIL_DECLARE(CalcSaturatedRs, TPVTOList, GridFunctionPtr p, GridFunctionPtr result)
KAVRA_BLACKOIL_DECLARE(CalcBubblePoint, TPVTOList, GridFunctionPtr rs, GridFunctionPtr result)
// 1/B and viscosity of a dead fluid (PVDO, PVDG) at P.
KAVRA_BLACKOIL_DECLARE(CalcDeadFluidOneOverB, TPVTList, GridFunctionPtr p, GridFunctionPtr result)
KAVRA_BLACKOIL_DECLARE(CalcDeadFluidViscosity, TPVTList, GridFunctionPtr p, GridFunctionPtr result)

} // namespace kavra
