#pragma once

// The items of a Python iterable in a list or tuple that no other code can
// change.  PySequence_Fast hands back the very list it was given; converting
// an item (__index__, __float__) can run Python that empties that list and
// frees the items still to be read, so a given list is copied first.  A
// tuple cannot change, and a list that PySequence_Fast built is ours alone.
#include <boost/python.hpp>

namespace kavra {
namespace python {

inline boost::python::handle<> PrivateSequence(PyObject* iterable, const char* message)
{
    boost::python::handle<> items(PySequence_Fast(iterable, message));
    if (items.get() == iterable && PyList_Check(iterable))
        return boost::python::handle<>(PyList_GetSlice(iterable, 0, PyList_GET_SIZE(iterable)));
    return items;
}

} // namespace python
} // namespace kavra
