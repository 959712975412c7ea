#pragma once

#include <cstdint>

#include "core/utils/GridFunctionAccess.h"

namespace kavra {

// result = numerator / denominator cell by cell where the denominator is
// above 0.0, else 0.0 (also for a NaN denominator).  The denominator is read
// first; the numerator only where it is divided.
inline void GuardedQuotient(const DoubleGridFunctionPtr& numerator, const DoubleGridFunctionPtr& denominator,
                            const WritableDoubleGridFunctionPtr& result, std::uint64_t nElts)
{
    DispatchGridFunctions(
        ElementTypes<double>(),
        [nElts](auto num, auto den, auto out) {
            for (std::uint64_t h = 0; h < nElts; ++h) {
                const double d = den.get(h);
                if (d > 0.0)
                    out.set(h, num.get(h) / d);
                else
                    out.set(h, 0.0);
            }
        },
        numerator, denominator, result);
}

} // namespace kavra
