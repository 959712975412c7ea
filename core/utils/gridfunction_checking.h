#pragma once

#include <array>
#include <tuple>
#include <type_traits>
#include <cstddef>
#include <string>
#include <utility>

#include <boost/shared_ptr.hpp>

#include "core/utils/Precondition.h"
#include "tessel/core/GridFunction.h"

namespace kavra {

typedef boost::shared_ptr<tessel::core::IGridFunction> GridFunctionPtr;
typedef boost::shared_ptr<tessel::core::ITypeGridFunction<double>> DoubleGridFunctionPtr;
typedef boost::shared_ptr<tessel::core::ITypeGridFunction<int>> IntGridFunctionPtr;
typedef boost::shared_ptr<tessel::core::IWritableTypeGridFunction<double, double>> WritableDoubleGridFunctionPtr;

// Cast a grid function argument to the class a calculation requires; a
// grid function of another class (or None) is a failed precondition that
// names the argument.
template <class T>
boost::shared_ptr<T> CheckedGridFunctionCast(const std::string& name, GridFunctionPtr gridFunction)
{
    boost::shared_ptr<T> reservoirGridFunction = boost::dynamic_pointer_cast<T>(gridFunction);
    PRECONDITION(reservoirGridFunction.get()!=0, "The type cast for " << name << " failed!!");
    return reservoirGridFunction;
}

// Calculations that take grid functions as they come refuse None up front,
// before any element is read or written.
inline void CheckGridFunctionGiven(const std::string& name, const GridFunctionPtr& gridFunction)
{
    PRECONDITION(gridFunction.get()!=0, "The grid function " << name << " is None!!");
}

// ---------------------------------------------------------------------------
// Element access policies.  A calculation is written once as a template over
// these; the double, float and generic variants are its instances.

// Direct access to the buffer of an array grid function of T; values are
// widened to double on reading and rounded once to T on writing.
template <class T>
class ArrayAccess
{
public:
    explicit ArrayAccess(T* data) : m_data(data) {}
    double get(tessel::core::handle h) const { return static_cast<double>(m_data[h]); }
    void set(tessel::core::handle h, double value) const { m_data[h] = static_cast<T>(value); }

private:
    T* m_data;
};

// Direct access to the region numbers of an array grid function of int.
class ArrayRegionAccess
{
public:
    static constexpr bool readAhead = true; // see ForEachRegionRun
    explicit ArrayRegionAccess(const int* data) : m_data(data) {}
    int get(tessel::core::handle h) const { return m_data[h]; }

private:
    const int* m_data;
};

// Any grid function, one virtual call per element.
class GenericAccess
{
public:
    explicit GenericAccess(tessel::core::IGridFunction* gridFunction) : m_gf(gridFunction) {}
    double get(tessel::core::handle h) const { return m_gf->get_double(h); }
    void set(tessel::core::handle h, double value) const { m_gf->set_double(h, value); }

private:
    tessel::core::IGridFunction* m_gf;
};

class GenericRegionAccess
{
public:
    static constexpr bool readAhead = false;
    explicit GenericRegionAccess(const tessel::core::IGridFunction* gridFunction) : m_gf(gridFunction) {}
    int get(tessel::core::handle h) const { return m_gf->get_int(h); }

private:
    const tessel::core::IGridFunction* m_gf;
};

enum class FloatVariant
{
    Absent,
    Present
};

namespace detail {

template <class T, class Body, std::size_t N, std::size_t... I>
void CallArrayVariant(Body& body, const tessel::core::ArrayGridFunction<int>& regions,
                      const std::array<boost::shared_ptr<tessel::core::ArrayGridFunction<T>>, N>& values,
                      std::index_sequence<I...>)
{
    body(ArrayRegionAccess(regions.data), ArrayAccess<T>(values[I]->data)...);
}

// The variant over arrays of T runs when the regions are an array of int and
// every other grid function, the result included, an array of T.
template <class T, class Body, class... Ptrs>
bool TryArrayVariant(Body& body, const GridFunctionPtr& regions, const Ptrs&... values)
{
    boost::shared_ptr<tessel::core::ArrayGridFunction<int>> regionArray =
        boost::dynamic_pointer_cast<tessel::core::ArrayGridFunction<int>>(regions);
    if (!regionArray)
        return false;
    std::array<boost::shared_ptr<tessel::core::ArrayGridFunction<T>>, sizeof...(Ptrs)> cast;
    std::size_t n = 0;
    const bool all =
        ((cast[n] = boost::dynamic_pointer_cast<tessel::core::ArrayGridFunction<T>>(values), cast[n++] != nullptr) &&
         ...);
    if (!all)
        return false;
    CallArrayVariant<T>(body, *regionArray, cast, std::index_sequence_for<Ptrs...>());
    return true;
}

} // namespace detail

// Runs `body` once with the access policies of the first variant that fits:
// arrays of double, then (where the calculation has one) arrays of float,
// else the generic variant.  `body(regions, values...)` receives one region
// policy and one value policy per further grid function, in argument order.
// Choosing looks at classes only and cannot fail.
template <class Body, class... Ptrs>
void DispatchGridFunctions(FloatVariant floatVariant, Body&& body, const GridFunctionPtr& regions,
                           const Ptrs&... values)
{
    if (detail::TryArrayVariant<double>(body, regions, values...))
        return;
    if (floatVariant == FloatVariant::Present && detail::TryArrayVariant<float>(body, regions, values...))
        return;
    body(GenericRegionAccess(regions.get()), GenericAccess(values.get())...);
}

// ---------------------------------------------------------------------------
// The rock calculations read through get_int/get_double of the typed
// interfaces and write through set_value.  When every argument is an array
// grid function those calls are known to be plain loads and stores of its
// buffer, so the same loop runs on the buffers directly: same values, same
// order of reads and writes per cell (arguments may share one grid function).

namespace detail {
template <class Interface>
struct ElementOf;
template <class T>
struct ElementOf<tessel::core::ITypeGridFunction<T>>
{
    typedef T type;
};
template <class T, class V>
struct ElementOf<tessel::core::IWritableTypeGridFunction<T, V>>
{
    typedef T type;
};
} // namespace detail

// The buffer of an array grid function of T, read and written as T.
template <class T>
class BufferAccess
{
public:
    explicit BufferAccess(T* data) : m_data(data) {}
    T get(tessel::core::handle h) const { return m_data[h]; }
    void set(tessel::core::handle h, T value) const { m_data[h] = value; }

private:
    T* m_data;
};

// The virtual accessors of a typed interface.
template <class Interface>
class InterfaceAccess
{
public:
    typedef typename detail::ElementOf<Interface>::type value_type;
    explicit InterfaceAccess(Interface* gridFunction) : m_gf(gridFunction) {}
    value_type get(tessel::core::handle h) const
    {
        if constexpr (std::is_same<value_type, int>::value)
            return m_gf->get_int(h);
        else
            return m_gf->get_double(h);
    }
    void set(tessel::core::handle h, value_type value) const { m_gf->set_value(h, value); }

private:
    Interface* m_gf;
};

// Runs `body` once, with one BufferAccess per argument when all are array
// grid functions, else with one InterfaceAccess per argument.
template <class Body, class... Interfaces>
void DispatchTypedGridFunctions(Body&& body, const boost::shared_ptr<Interfaces>&... gridFunctions)
{
    const std::tuple<boost::shared_ptr<tessel::core::ArrayGridFunction<typename detail::ElementOf<Interfaces>::type>>...>
        arrays(boost::dynamic_pointer_cast<
               tessel::core::ArrayGridFunction<typename detail::ElementOf<Interfaces>::type>>(gridFunctions)...);
    const bool allArrays = std::apply([](const auto&... a) { return (... && (a != nullptr)); }, arrays);
    if (allArrays)
        std::apply([&](const auto&... a) { body(BufferAccess<typename std::decay_t<decltype(*a)>::value_type>(a->data)...); },
                   arrays);
    else
        body(InterfaceAccess<Interfaces>(gridFunctions.get())...);
}

} // namespace kavra
