#pragma once

// Water and rock as the simulator evaluates them (PVTW, ROCK), and the
// density at reservoir conditions from the surface densities.  Cells of
// region below 1 get 0.0.
#include "core/blackoil/Declare.h"

namespace kavra {

// 1/Bw and water viscosity at P.
KAVRA_BLACKOIL_DECLARE(CalcWaterOneOverB, TPVTWList, GridFunctionPtr p, GridFunctionPtr result)
KAVRA_BLACKOIL_DECLARE(CalcWaterViscosity, TPVTWList, GridFunctionPtr p, GridFunctionPtr result)
// The pore volume multiplier at P.
KAVRA_BLACKOIL_DECLARE(CalcPoreVolumeMultiplier, TRockList, GridFunctionPtr p, GridFunctionPtr result)

// The density of a phase in the reservoir from its 1/B, the ratio r of the
// other phase's surface volume it carries, and the two surface densities:
// b * (own + r * other), `other` already in the units that make r * other
// a density.
void CalcDensityFromB(GridFunctionPtr b, GridFunctionPtr r, GridFunctionPtr own, GridFunctionPtr other,
                      GridFunctionPtr result);

} // namespace kavra
