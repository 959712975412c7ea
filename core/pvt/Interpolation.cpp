#include "core/pvt/Interpolation.h"

namespace kavra {

double InterpolateB(const TPVTTable& table, double pressure)
{
    return InterpolateRows<BLine>(table, pressure, pressure);
}

} // namespace kavra
