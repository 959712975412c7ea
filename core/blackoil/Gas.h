#pragma once

// Wet gas as the simulator evaluates it: PVTG as a table in pressure and Rv
// of 1/B and 1/(B mu) (the viscosity is their ratio).  Cells of region
// below 1 get 0.0.  Dry gas (PVDG) is a dead fluid (core/blackoil/Oil.h).
#include "core/blackoil/Declare.h"

namespace kavra {

// 1/Bg and gas viscosity of wet gas at (P, Rv).
KAVRA_BLACKOIL_DECLARE(CalcWetGasOneOverB, TPVTGList, GridFunctionPtr p, GridFunctionPtr rv, GridFunctionPtr result)
KAVRA_BLACKOIL_DECLARE(CalcWetGasViscosity, TPVTGList, GridFunctionPtr p, GridFunctionPtr rv, GridFunctionPtr result)
// Rv of saturated gas at P, and the dew point of gas of a given Rv.
KAVRA_BLACKOIL_DECLARE(CalcSaturatedRv, TPVTGList, GridFunctionPtr p, GridFunctionPtr result)
KAVRA_BLACKOIL_DECLARE(CalcDewPoint, TPVTGList, GridFunctionPtr rv, GridFunctionPtr result)

} // namespace kavra
