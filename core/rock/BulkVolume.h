#pragma once

#include "core/utils/gridfunction_checking.h"

namespace kavra {

// Bulk volume from pore volume and porosity: PORV / PORO where PORO > 0,
// else 0.0.
void CalcBulkVolume(GridFunctionPtr p_PORV, GridFunctionPtr p_PORO, GridFunctionPtr p_BulkVolume);

// Scales the bulk volume in place by the net-to-gross ratio; a second call
// applies NTG again.
void CalcBulkVolume(GridFunctionPtr p_NTG, GridFunctionPtr p_BulkVolume);

} // namespace kavra
