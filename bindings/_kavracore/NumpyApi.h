#pragma once

// The NumPy C API of this module: one function table, set by
// ImportNumpyArrayApi() when the module is imported.
#include <Python.h>

#define PY_ARRAY_UNIQUE_SYMBOL kavra_ARRAY_API
#ifndef KAVRA_NUMPY_API_DEFINITION
#define NO_IMPORT_ARRAY
#endif
#include <numpy/arrayobject.h>

namespace kavra {
namespace python {

// Imports NumPy's array interface.  On failure the pending error is printed
// to stderr, ImportError "numpy.core.multiarray failed to import" is set and
// boost::python::error_already_set is thrown, which fails the import.
void ImportNumpyArrayApi();

} // namespace python
} // namespace kavra
