#pragma once

#include "core/types/Records.h"
#include "core/utils/ElementTypes.h"
#include "core/utils/gridfunction_checking.h"

namespace kavra {

// 1/Bw per cell from the water record of the cell's PVT region:
// (1 + x + x^2/2) / Bw_ref with x = (Pw - P_ref) * Cw.  Cells of region
// below 1 get 0.0.
void CalcOneOverBw(const TPVTWList& pvtwList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pw, GridFunctionPtr OneOverBw);

// The same with the engine's variants besides (core/utils/ElementTypes.h).
void CalcOneOverBw(EngineVariants, const TPVTWList& pvtwList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pw, GridFunctionPtr OneOverBw);

} // namespace kavra
