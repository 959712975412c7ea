#pragma once

#include "core/types/Records.h"
#include "core/utils/ElementTypes.h"
#include "core/utils/gridfunction_checking.h"

namespace kavra {

// 1/B per cell from the dead-fluid table of the cell's PVT region: B
// interpolated linearly in pressure, then inverted.  Cells of region
// below 1 get 0.0.
void CalcOneOverB(const TPVTList& pvtList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_P, GridFunctionPtr OneOverB);

// The same with the engine's variants besides (core/utils/ElementTypes.h).
void CalcOneOverB(EngineVariants, const TPVTList& pvtList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_P, GridFunctionPtr OneOverB);

} // namespace kavra
