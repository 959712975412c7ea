#pragma once

#include "core/types/Records.h"
#include "core/utils/ElementTypes.h"
#include "core/utils/gridfunction_checking.h"

namespace kavra {

// 1/Bg per cell from the wet-gas table of the cell's PVT region.  Gas
// within 0.0001 of its dew point, or with Pg at or outside the table's
// pressures, takes the saturated line; otherwise 1/Bg is interpolated in Rv
// within the two rows around Pg and then between them in Pg.  Cells of
// region below 1 get 0.0.
void CalcOneOverBg(const TPVTGList& p_pvtg_list, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pg,
                   GridFunctionPtr p_Pdew, GridFunctionPtr p_Rv, GridFunctionPtr OneOverBg);

// The same with the engine's variants besides (core/utils/ElementTypes.h).
void CalcOneOverBg(EngineVariants, const TPVTGList& p_pvtg_list, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Pg,
                   GridFunctionPtr p_Pdew, GridFunctionPtr p_Rv, GridFunctionPtr OneOverBg);

} // namespace kavra
