#pragma once

// Helpers of the Python modules _kavracore, _parallel and _tessel: raising a
// Python error, Python's index rule, the items of an iterable that no other
// code can change, and the element types that pass between C++ and NumPy.
#include <boost/python.hpp>
#include <numpy/ndarraytypes.h> // the type numbers only: no NumPy function table is used here

#include <cstddef>
#include <string>

#include "core/utils/ElementTypes.h"

namespace kavra {
namespace python {

// Raise `type` with `message` as the pending Python error and leave through
// Boost.Python.
[[noreturn]] inline void Raise(PyObject* type, const std::string& message)
{
    PyErr_SetString(type, message.c_str());
    throw boost::python::error_already_set();
}

// Position of a Python index among `size` elements; a negative index counts
// from the end.  IndexError `message` outside.
inline std::size_t NormalizeIndex(long long index, std::size_t size, const char* message)
{
    const long long n = static_cast<long long>(size);
    if (index < 0)
        index += n;
    if (index < 0 || index >= n)
        Raise(PyExc_IndexError, message);
    return static_cast<std::size_t>(index);
}

// The items of a Python iterable in a list or tuple that no other code can
// change.  PySequence_Fast hands back the very list it was given; converting
// an item (__index__, __float__) can run Python that empties that list and
// frees the items still to be read, so a given list is copied first.  A
// tuple cannot change, and a list that PySequence_Fast built is ours alone.
inline boost::python::handle<> PrivateSequence(PyObject* iterable, const char* message)
{
    boost::python::handle<> items(PySequence_Fast(iterable, message));
    if (items.get() == iterable && PyList_Check(iterable))
        return boost::python::handle<>(PyList_GetSlice(iterable, 0, PyList_GET_SIZE(iterable)));
    return items;
}

// What the modules know of an element type of NumPy arrays.
struct ElementTraits
{
    int typenum;       // NumPy's type number
    char character;    // dtype.char
    const char* dtype; // the dtype's name in error texts
    const char* name;  // the name in class names (tessel's IntGridFunction, FloatGridFunction, ...)
};

// A type without an entry below does not compile where its entry is asked for.
template <class T>
struct NoElementTraits;

// The element types that the modules read and make, one entry per NumPy type
// number, also where two have the same width (`long` follows the platform,
// as NumPy's NPY_LONG does).
template <class T>
inline constexpr ElementTraits elementTraits = NoElementTraits<T>::traits;
template <>
inline constexpr ElementTraits elementTraits<int> = {NPY_INT, 'i', "int32", "Int"};
template <>
inline constexpr ElementTraits elementTraits<unsigned int> = {NPY_UINT, 'I', "uint32", "UInt"};
template <>
inline constexpr ElementTraits elementTraits<long> = {NPY_LONG, 'l', sizeof(long) == 8 ? "int64" : "int32", "Long"};
template <>
inline constexpr ElementTraits elementTraits<unsigned long> = {NPY_ULONG, 'L', sizeof(long) == 8 ? "uint64" : "uint32",
                                                               "ULong"};
template <>
inline constexpr ElementTraits elementTraits<float> = {NPY_FLOAT, 'f', "float32", "Float"};
template <>
inline constexpr ElementTraits elementTraits<double> = {NPY_DOUBLE, 'd', "float64", "Double"};

// The element types of the column reductions' arrays: their switches over
// type numbers (or buffer characters) are made from this list.
// NPY_LONGLONG and NPY_ULONGLONG are not among them.
typedef ElementTypes<int, unsigned int, long, unsigned long, float, double> ArrayElements;

// Calls visit(T()) for the first T of the list whose traits `match`; false
// when none does.
template <class Match, class Visit, class... T>
bool ForElementType(ElementTypes<T...>, const Match& match, Visit&& visit)
{
    return ((match(elementTraits<T>) && (visit(T()), true)) || ...);
}

} // namespace python
} // namespace kavra
