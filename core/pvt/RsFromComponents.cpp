#include "core/pvt/RsFromComponents.h"

#include "core/utils/GridFunctionAccess.h"

namespace kavra {

void CalcRsFromComponents(GridFunctionPtr p_Denominator, GridFunctionPtr p_Numerator, GridFunctionPtr p_Rs)
{
    CheckGridFunctionGiven("Denominator", p_Denominator);
    CheckGridFunctionGiven("Numerator", p_Numerator);
    CheckGridFunctionGiven("Rs", p_Rs);

    const std::uint64_t nElts = p_Rs->number_of_elements();
    PRECONDITION(p_Denominator->number_of_elements() >= nElts,
                 "Denominator has fewer elements than Rs. Rs elements: "
                     << nElts << ", Denominator elements: " << p_Denominator->number_of_elements());
    PRECONDITION(p_Numerator->number_of_elements() >= nElts,
                 "Numerator has fewer elements than Rs. Rs elements: "
                     << nElts << ", Numerator elements: " << p_Numerator->number_of_elements());

    // Arrays of double are read and written through their buffers, any other
    // grid function through get_double and set_double: the same reads and
    // writes in the same order, so the same bits.
    DispatchGridFunctions(
        ElementTypes<double>(),
        [nElts](auto den, auto num, auto rs) {
            for (std::uint64_t h = 0; h < nElts; ++h) {
                const double a = num.get(h);
                const double b = den.get(h);
                rs.set(h, b > 0.0 ? a / b : 0.0);
            }
        },
        p_Denominator, p_Numerator, p_Rs);
}

} // namespace kavra
