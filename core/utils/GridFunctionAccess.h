#pragma once

// How a calculation reaches the elements of its grid functions.  It is
// written once, as a template over two access policies:
//
// - BufferAccess<T>: the buffer of an array grid function of T, read as T
//   (a value is widened to double where the calculation uses it) and
//   written from double, rounded once to T;
// - VirtualAccess: any grid function, through its virtual accessors, one
//   call per element.
//
// DispatchGridFunctions picks them once per call, never per cell.
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

#include "core/utils/ElementTypes.h"
#include "core/utils/gridfunction_checking.h"

namespace kavra {

// An untyped grid function argument that holds region numbers: read as int
// in every variant (its array variant needs an array grid function of int).
struct RegionNumbers
{
    const GridFunctionPtr& gridFunction;
};

template <class T>
class BufferAccess
{
public:
    static constexpr bool readAhead = true; // see ForEachRegionRun
    explicit BufferAccess(T* data) : m_data(data) {}
    T get(tessel::core::handle h) const { return m_data[h]; }
    void set(tessel::core::handle h, double value) const { m_data[h] = static_cast<T>(value); }

private:
    T* m_data;
};

// Reads as int (get_int) or as double (get_double); writes through the
// typed set_value where the interface is a writable typed one, else through
// set_double.
template <class Interface, class T>
class VirtualAccess
{
public:
    static constexpr bool readAhead = false;
    explicit VirtualAccess(Interface* gridFunction) : m_gf(gridFunction) {}
    T get(tessel::core::handle h) const
    {
        if constexpr (std::is_same<T, int>::value)
            return m_gf->get_int(h);
        else
            return m_gf->get_double(h);
    }
    void set(tessel::core::handle h, double value) const
    {
        if constexpr (std::is_same<Interface, tessel::core::IGridFunction>::value)
            m_gf->set_double(h, value);
        else
            m_gf->set_value(h, value);
    }

private:
    Interface* m_gf;
};

namespace detail {

// An argument of a dispatch: its interface, and its element type in the
// variant of element type T.  A typed interface has its own element type in
// every variant; an untyped grid function takes T (double where it is read
// through its accessors); region numbers are int.
template <class Argument, class T>
struct DispatchArgument;

template <class T>
struct DispatchArgument<GridFunctionPtr, T>
{
    typedef tessel::core::IGridFunction Interface;
    typedef T Element;
    static const GridFunctionPtr& Pointer(const GridFunctionPtr& argument) { return argument; }
};

template <class T>
struct DispatchArgument<RegionNumbers, T>
{
    typedef tessel::core::IGridFunction Interface;
    typedef int Element;
    static const GridFunctionPtr& Pointer(const RegionNumbers& argument) { return argument.gridFunction; }
};

template <class U, class T>
struct DispatchArgument<boost::shared_ptr<tessel::core::ITypeGridFunction<U>>, T>
{
    typedef tessel::core::ITypeGridFunction<U> Interface;
    typedef U Element;
    static const boost::shared_ptr<Interface>& Pointer(const boost::shared_ptr<Interface>& argument) { return argument; }
};

template <class U, class V, class T>
struct DispatchArgument<boost::shared_ptr<tessel::core::IWritableTypeGridFunction<U, V>>, T>
{
    typedef tessel::core::IWritableTypeGridFunction<U, V> Interface;
    typedef U Element;
    static const boost::shared_ptr<Interface>& Pointer(const boost::shared_ptr<Interface>& argument) { return argument; }
};

template <class T, class Argument>
using ArrayOf = tessel::core::ArrayGridFunction<typename DispatchArgument<Argument, T>::Element>;

// The element type of an argument in the variant T: T itself, or for a
// Mixed variant its In for the inputs and its Out for the result.
template <class T, bool result>
struct VariantElement
{
    typedef T type;
};

template <class In, class Out, bool result>
struct VariantElement<Mixed<In, Out>, result>
{
    typedef std::conditional_t<result, Out, In> type;
};

// Calls body with one BufferAccess per argument when every argument is an
// array grid function of its element type in the variant of T.  The casts
// go in argument order and stop at the first that fails.
template <class T, std::size_t... I, class Body, class... Arguments>
bool TryBuffersOf(std::index_sequence<I...>, Body& body, const Arguments&... arguments)
{
    std::tuple<boost::shared_ptr<
        ArrayOf<typename VariantElement<T, I + 1 == sizeof...(I)>::type, Arguments>>...> arrays;
    bool all = true;
    std::apply(
        [&](auto&... array) {
            ((all = all && (array = boost::dynamic_pointer_cast<typename std::decay_t<decltype(array)>::element_type>(
                                DispatchArgument<Arguments, double>::Pointer(arguments))) != nullptr),
             ...);
        },
        arrays);
    if (!all)
        return false;
    std::apply([&](const auto&... array) { body(BufferAccess<typename std::decay_t<decltype(*array)>::value_type>(
                                               array->data)...); },
               arrays);
    return true;
}

template <class T, class Body, class... Arguments>
bool TryBuffers(Body& body, const Arguments&... arguments)
{
    return TryBuffersOf<T>(std::index_sequence_for<Arguments...>(), body, arguments...);
}

template <class Argument>
auto Virtual(const Argument& argument)
{
    typedef DispatchArgument<Argument, double> Resolved;
    return VirtualAccess<typename Resolved::Interface, typename Resolved::Element>(Resolved::Pointer(argument).get());
}

} // namespace detail

// Runs `body` once, with the access policies of the first variant that
// fits: buffers of the element types in the order given, else the virtual
// accessors.  `body` receives one access per argument, in argument order.
// Choosing looks at classes only and cannot fail.
template <class... T, class Body, class... Arguments>
void DispatchGridFunctions(ElementTypes<T...>, Body&& body, const Arguments&... arguments)
{
    if ((detail::TryBuffers<T>(body, arguments...) || ...))
        return;
    body(detail::Virtual(arguments)...);
}

} // namespace kavra
