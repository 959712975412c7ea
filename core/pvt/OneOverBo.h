#pragma once

#include "core/types/Records.h"
#include "core/utils/ElementTypes.h"
#include "core/utils/gridfunction_checking.h"

namespace kavra {

// 1/Bo per cell from the live-oil table of the cell's PVT region.  Within
// 0.0001 of Pbub the oil is saturated and Bo comes from the saturated line
// at Po; otherwise from the undersaturated rows of the one table row that
// Pbub picks.  Cells of region below 1 get 0.0.
void CalcOneOverBo(const TPVTOList& pvtoList, GridFunctionPtr PVTNum, GridFunctionPtr Po, GridFunctionPtr Pbub,
                   GridFunctionPtr OneOverBo);

// The same with the engine's variants besides (core/utils/ElementTypes.h).
void CalcOneOverBo(EngineVariants, const TPVTOList& pvtoList, GridFunctionPtr PVTNum, GridFunctionPtr Po, GridFunctionPtr Pbub,
                   GridFunctionPtr OneOverBo);

} // namespace kavra
