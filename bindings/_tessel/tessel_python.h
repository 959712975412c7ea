#pragma once

// Shared declarations of the tessel Python module.
#define PY_ARRAY_UNIQUE_SYMBOL tessel_ARRAY_API
#ifndef TESSEL_PYTHON_MODULE_BODY
#define NO_IMPORT_ARRAY
#endif

#include <boost/python.hpp>
#include <numpy/arrayobject.h>

#include <vector>

namespace tessel {
namespace python {

// Raise `type` with `message` as the pending Python error and leave.
[[noreturn]] void raise(PyObject* type, const std::string& message);

// A Python integer (anything with __index__, bools excluded) as a long long;
// TypeError otherwise, ValueError outside [lo, hi].
long long integer_argument(PyObject* value, long long lo, long long hi, const char* what);

// TypeError for a masked array (numpy.ma), whose mask a conversion would drop.
void refuse_masked(PyObject* source, const char* what);

// Values of a one-dimensional array-like, converted to T.  Integers only for
// an integer T (each must fit T), numbers of any real kind for a floating T.
template <class T>
std::vector<T> values_from_array_like(boost::python::object source, const char* what);

// A NumPy array over `count` elements at `data` that keeps `owner` alive.
boost::python::object array_view(boost::python::object owner, void* data, npy_intp count, int typenum);

void register_grid_functions();
void register_topologies();
void register_int_vector();

} // namespace python
} // namespace tessel
