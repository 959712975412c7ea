#pragma once

#include <ostream>
#include <string>

#include <boost/shared_ptr.hpp>

#include "core/utils/Precondition.h"

namespace kavra {

// One number with two free-text labels.  Tables hold every number through a
// shared TScalarPtr, so writing `value` is seen by every record that shares
// the scalar.  The labels are never interpreted.
class TScalar
{
public:
    double value;
    std::string category;
    std::string unit;

    TScalar();
    TScalar(double value, std::string category, std::string unit);

    bool operator==(const TScalar& other) const;
    bool operator!=(const TScalar& other) const;

    // "TScalar(<value>, <category>, <unit>)", the value with six significant digits.
    std::string str() const;
};

typedef boost::shared_ptr<TScalar> TScalarPtr;

std::ostream& operator<<(std::ostream& os, const TScalar& scalar);

// The number of a table field.  A field that a script set to None is a
// failed check, never a read through an empty pointer.
inline double ScalarValue(const TScalarPtr& scalar)
{
    PRECONDITION(scalar.get()!=0, "A table field that the calculation reads holds no TScalar (None).");
    return scalar->value;
}

} // namespace kavra
