#pragma once

#include "core/types/Records.h"
#include "core/utils/Failure.h"
#include "core/utils/gridfunction_checking.h"

namespace kavra {

// Reference porosity corrected for the cell pressure with the rock
// compressibility of the cell's region, capped at 1.0.  Cells with a region
// below 1 are left as they are.
void CalcPorosity(const TRockList& rockList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Po, GridFunctionPtr p_PORO,
                  GridFunctionPtr p_Porosity);

// Porosity as PORV / BulkVolume where the bulk volume is above 0, else 0.0.
// No cap: a pore volume above the bulk volume gives a porosity above 1.0.
void CalcPorosityFromPORV(GridFunctionPtr p_BulkVolume, GridFunctionPtr p_PORV, GridFunctionPtr p_Porosity);

} // namespace kavra
