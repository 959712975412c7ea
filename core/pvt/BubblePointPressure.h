#pragma once

#include "core/types/Records.h"
#include "core/utils/ElementTypes.h"
#include "core/utils/gridfunction_checking.h"

namespace kavra {

// Bubble point pressure per cell: the cell's Rs looked up along the
// saturated line of its region's live-oil table.  Cells of region below 1
// get 0.0.
void CalcBubblePointPressure(const TPVTOList& p_pvtoList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_RS,
                             GridFunctionPtr Pbub);

// The same with the engine's variants besides (core/utils/ElementTypes.h).
void CalcBubblePointPressure(EngineVariants, const TPVTOList& p_pvtoList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_RS,
                             GridFunctionPtr Pbub);

} // namespace kavra
