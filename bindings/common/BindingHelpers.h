#pragma once

// Helpers of the Python modules _kavracore, _parallel and _tessel: raising a
// Python error, Python's index rule, the items of an iterable that no other
// code can change, and the element types that pass between C++ and NumPy.
#include <boost/python.hpp>
#include <numpy/ndarraytypes.h> // the type numbers only: no NumPy function table is used here

#include <cstddef>
#include <string>

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

// An element type of NumPy arrays: its type number, the name of the grid
// function class over it and the dtype named in error texts.
template <class T>
struct ElementType;
template <>
struct ElementType<int>
{
    static constexpr int typenum = NPY_INT;
    static constexpr const char* name = "Int";
    static constexpr const char* dtype = "int32";
};
template <>
struct ElementType<float>
{
    static constexpr int typenum = NPY_FLOAT;
    static constexpr const char* name = "Float";
    static constexpr const char* dtype = "float32";
};
template <>
struct ElementType<double>
{
    static constexpr int typenum = NPY_DOUBLE;
    static constexpr const char* name = "Double";
    static constexpr const char* dtype = "float64";
};

} // namespace python
} // namespace kavra
