#include "core/pvt/RsFromComponents.h"

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

    for (std::uint64_t h = 0; h < nElts; ++h) {
        const double a = p_Numerator->get_double(h);
        const double b = p_Denominator->get_double(h);
        p_Rs->set_double(h, b > 0.0 ? a / b : 0.0);
    }
}

} // namespace kavra
