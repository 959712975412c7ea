#define KAVRA_NUMPY_API_DEFINITION
#include "NumpyApi.h"

#include <boost/python/errors.hpp>

namespace kavra {
namespace python {

namespace {

// The steps of NumPy's own import_array for the headers this module is built
// against, with an explicit message for each failure.  Returns -1 with a
// Python error set on failure.
int ImportArrayApiSteps()
{
    PyObject* numpy = PyImport_ImportModule("numpy._core._multiarray_umath");
    if (numpy == nullptr && PyErr_ExceptionMatches(PyExc_ModuleNotFoundError)) {
        // NumPy 1.x keeps the module under its old name.
        PyErr_Clear();
        numpy = PyImport_ImportModule("numpy.core._multiarray_umath");
    }
    if (numpy == nullptr)
        return -1;

    PyObject* c_api = PyObject_GetAttrString(numpy, "_ARRAY_API");
    Py_DECREF(numpy);
    if (c_api == nullptr) {
        if (PyErr_ExceptionMatches(PyExc_AttributeError))
            PyErr_SetString(PyExc_AttributeError, "_ARRAY_API not found");
        return -1;
    }
    if (!PyCapsule_CheckExact(c_api)) {
        PyErr_SetString(PyExc_RuntimeError, "_ARRAY_API is not PyCapsule object");
        Py_DECREF(c_api);
        return -1;
    }
    PyArray_API = static_cast<void**>(PyCapsule_GetPointer(c_api, nullptr));
    Py_DECREF(c_api);
    if (PyArray_API == nullptr) {
        PyErr_SetString(PyExc_RuntimeError, "_ARRAY_API is NULL pointer");
        return -1;
    }

    // A newer ABI than the headers' fails; NumPy 2 headers also serve NumPy 1.x.
    const unsigned int abi = PyArray_GetNDArrayCVersion();
    if (static_cast<unsigned int>(NPY_VERSION) < abi) {
        PyErr_Format(PyExc_RuntimeError, "module compiled against ABI version 0x%x but this version of numpy is 0x%x",
                     static_cast<int>(NPY_VERSION), static_cast<int>(abi));
        return -1;
    }
    const int feature = static_cast<int>(PyArray_GetNDArrayCFeatureVersion());
    if (feature < static_cast<int>(NPY_FEATURE_VERSION)) {
        PyErr_Format(PyExc_RuntimeError, "module compiled against API version 0x%x but this version of numpy is 0x%x",
                     static_cast<int>(NPY_FEATURE_VERSION), feature);
        return -1;
    }
#if NPY_ABI_VERSION >= 0x02000000
    PyArray_RUNTIME_VERSION = feature;
#endif

    const int endianness = PyArray_GetEndianness();
    if (endianness == NPY_CPU_UNKNOWN_ENDIAN) {
        PyErr_SetString(PyExc_RuntimeError, "FATAL: module compiled as unknown endian");
        return -1;
    }
    if (endianness != NPY_CPU_LITTLE) {
        PyErr_SetString(PyExc_RuntimeError,
                        "FATAL: module compiled as little endian, but detected different endianness at runtime");
        return -1;
    }
    return 0;
}

} // namespace

void ImportNumpyArrayApi()
{
    if (ImportArrayApiSteps() < 0) {
        PyErr_Print();
        PyErr_SetString(PyExc_ImportError, "numpy.core.multiarray failed to import");
        boost::python::throw_error_already_set();
    }
}

} // namespace python
} // namespace kavra
