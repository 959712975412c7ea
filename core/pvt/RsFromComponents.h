#pragma once

#include "core/utils/gridfunction_checking.h"

namespace kavra {

// Rs = Numerator / Denominator per cell, 0.0 where the denominator is not
// above 0.  Works on any grid functions; the inputs must hold at least as
// many elements as the result.
void CalcRsFromComponents(GridFunctionPtr p_Denominator, GridFunctionPtr p_Numerator, GridFunctionPtr p_Rs);

} // namespace kavra
