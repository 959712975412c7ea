#pragma once

// Shared declarations of the tessel Python module.
#define PY_ARRAY_UNIQUE_SYMBOL tessel_ARRAY_API
#ifndef TESSEL_PYTHON_MODULE_BODY
#define NO_IMPORT_ARRAY
#endif

#include <boost/python.hpp>
#include <numpy/arrayobject.h>

#include <string>
#include <vector>

#include "bindings/common/BindingHelpers.h"

namespace tessel {
namespace python {

using kavra::python::elementTraits;
using kavra::python::NormalizeIndex;
using kavra::python::PrivateSequence;
using kavra::python::Raise;

// A Python integer (anything with __index__, bools excluded) as a long long;
// TypeError otherwise, ValueError outside [lo, hi].
long long IntegerArgument(PyObject* value, long long lo, long long hi, const char* what);

// TypeError for a masked array (numpy.ma), whose mask a conversion would drop.
void RefuseMasked(PyObject* source, const char* what);

// The text of an array's dtype, as str(a.dtype) gives it.
std::string DtypeText(PyArrayObject* array);

// `source` as a NumPy array (any array-like; a masked array is refused, naming
// `what`), and an array as a C-contiguous, aligned one of `typenum` (NumPy's
// casts, so byte-swapped and unaligned input comes out native).
boost::python::object AsArray(boost::python::object source, const char* what);
boost::python::object CastArray(PyArrayObject* array, int typenum);

// Values of a one-dimensional array-like, converted to T.  Integers only for
// an integer T (each must fit T), numbers of any real kind for a floating T.
template <class T>
std::vector<T> ValuesFromArrayLike(boost::python::object source, const char* what);

// A NumPy array over `count` elements at `data` that keeps `owner` alive.
boost::python::object ArrayView(boost::python::object owner, void* data, npy_intp count, int typenum);

void RegisterGridFunctions();
void RegisterTopologies();
void RegisterIntVector();

} // namespace python
} // namespace tessel
