#include "core/types/Scalar.h"

#include <sstream>
#include <utility>

namespace kavra {

TScalar::TScalar() : value(0.0) {}

TScalar::TScalar(double value_, std::string category_, std::string unit_)
    : value(value_), category(std::move(category_)), unit(std::move(unit_))
{
}

// Exact comparison: NaN differs from everything, 0.0 equals -0.0, and the
// labels must match byte for byte.
bool TScalar::operator==(const TScalar& other) const
{
    return value == other.value && category == other.category && unit == other.unit;
}

bool TScalar::operator!=(const TScalar& other) const
{
    return !(*this == other);
}

std::string TScalar::str() const
{
    std::ostringstream text;
    text << *this;
    return text.str();
}

std::ostream& operator<<(std::ostream& os, const TScalar& scalar)
{
    return os << "TScalar(" << scalar.value << ", " << scalar.category << ", " << scalar.unit << ")";
}

} // namespace kavra
