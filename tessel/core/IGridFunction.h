#pragma once

#include <cstdint>

#include "tessel/Export.h"

namespace tessel {
namespace core {

// Position of an element in a grid function, counted from 0.
typedef std::uint64_t handle;

// A grid function: one value per element (cell or selected cell).
// Element access goes through these virtual operations; the concrete classes
// also expose their storage for callers that want to skip the virtual call.
class TESSEL_API IGridFunction
{
public:
    virtual std::uint64_t number_of_elements() const = 0;
    virtual double get_double(handle h) const = 0;
    virtual int get_int(handle h) const = 0;
    virtual void set_double(handle h, double value) = 0;
    virtual ~IGridFunction();
};

// Grid function whose elements are of type T.  Adds no operation: the typed
// interfaces exist so that a caller can demand an element type by casting.
template <class T>
class TESSEL_API ITypeGridFunction : public IGridFunction
{
public:
    ~ITypeGridFunction() override;
};

// Typed grid function that can also be written with values of type V.
template <class T, class V>
class TESSEL_API IWritableTypeGridFunction : public ITypeGridFunction<T>
{
public:
    virtual void set_value(handle h, V value) = 0;
    ~IWritableTypeGridFunction() override;
};

// The vtables and type_info of these instances are emitted once, in the
// tessel library.
extern template class ITypeGridFunction<int>;
extern template class ITypeGridFunction<float>;
extern template class ITypeGridFunction<double>;
extern template class IWritableTypeGridFunction<int, int>;
extern template class IWritableTypeGridFunction<float, float>;
extern template class IWritableTypeGridFunction<double, double>;

} // namespace core
} // namespace tessel
