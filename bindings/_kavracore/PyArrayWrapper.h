#pragma once

// Typed access to NumPy arrays.  TPyArrayWrapper<T> owns one reference to an
// array whose element type is T, identified by NumPy type number; elements
// are always reached through the array's own strides.
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <boost/python.hpp>

#include "bindings/common/BindingHelpers.h"
#include "NumpyApi.h"

namespace kavra {

using python::elementTraits;
using python::ElementTraits;
using python::Raise;

using python::ArrayElements;

// True for an ndarray or an instance of one of its subclasses.
inline bool IsNumpyArray(PyObject* object)
{
    return Py_TYPE(object) == &PyArray_Type || PyType_IsSubtype(Py_TYPE(object), &PyArray_Type);
}

// The type number of an array's descriptor, NPY_NOTYPE for any other object.
inline int ArrayTypeNumber(const boost::python::object& object)
{
    if (!IsNumpyArray(object.ptr()))
        return NPY_NOTYPE;
    return PyArray_DESCR(reinterpret_cast<PyArrayObject*>(object.ptr()))->type_num;
}

template <class T>
class TPyArrayWrapper
{
public:
    // Attaches to an existing array.  An object that is no array leaves the
    // wrapper empty (no array, blank type) without an error; an array of
    // another element type throws std::runtime_error.
    explicit TPyArrayWrapper(const boost::python::object& object)
        : m_object(boost::python::handle<>(PyLong_FromLong(0))), m_array(nullptr)
    {
        if (!IsNumpyArray(object.ptr()))
            return;
        m_object = object;
        m_array = reinterpret_cast<PyArrayObject*>(m_object.ptr());
        if (PyArray_DESCR(m_array)->type_num != elementTraits<T>.typenum)
            throw std::runtime_error(std::string("TPyArrayWrapper: received a numeric array object with wrong type\n"
                                                 "\tArray is of type: ") +
                                     PyArray_DESCR(m_array)->type + "\n\tWrapper type is: " +
                                     elementTraits<T>.character);
    }

    // A new, uninitialised one-dimensional array of `size` elements.
    explicit TPyArrayWrapper(int size) : m_array(nullptr)
    {
        npy_intp dims[1] = {size};
        Allocate(1, dims);
    }

    // A new, uninitialised two-dimensional array of size0 x size1 elements.
    TPyArrayWrapper(int size0, int size1) : m_array(nullptr)
    {
        npy_intp dims[2] = {size0, size1};
        Allocate(2, dims);
    }

    const boost::python::object& object() const { return m_object; }
    PyArrayObject* array() const { return m_array; }

private:
    void Allocate(int ndim, npy_intp* dims)
    {
        PyObject* array = PyArray_New(&PyArray_Type, ndim, dims, elementTraits<T>.typenum, nullptr, nullptr, 0, 0,
                                      nullptr);
        m_object = boost::python::object(boost::python::handle<>(array)); // a null result raises NumPy's error
        m_array = reinterpret_cast<PyArrayObject*>(array);
    }

    boost::python::object m_object; // the owning reference
    PyArrayObject* m_array;         // the same object, null while no array is held
};

// A wrapper on the C-order flattening of an array: a view where the array is
// C-contiguous, a copy otherwise.
template <class T>
TPyArrayWrapper<T> RavelArray(const boost::python::object& array)
{
    return TPyArrayWrapper<T>(boost::python::object(
        boost::python::handle<>(PyArray_Ravel(reinterpret_cast<PyArrayObject*>(array.ptr()), NPY_CORDER))));
}

// A new zero-filled two-dimensional array of T in C order.
template <class T>
TPyArrayWrapper<T> ZeroArray(npy_intp size0, npy_intp size1)
{
    npy_intp dims[2] = {size0, size1};
    return TPyArrayWrapper<T>(boost::python::object(
        boost::python::handle<>(PyArray_Zeros(2, dims, PyArray_DescrFromType(elementTraits<T>.typenum), 0))));
}

// Calls visit(T()) for the element type T of `typeNumber` in ArrayElements,
// and returns what it returns.  Any other type number raises ValueError
// "Unsupported array data type = <number>!\n".
template <class Visitor>
auto VisitElementType(int typeNumber, Visitor&& visit)
{
    std::optional<decltype(visit(int()))> result;
    if (!python::ForElementType(
            ArrayElements(), [typeNumber](const ElementTraits& e) { return e.typenum == typeNumber; },
            [&](auto zero) { result.emplace(visit(zero)); }))
        Raise(PyExc_ValueError, "Unsupported array data type = " + std::to_string(typeNumber) + "!\n");
    return std::move(*result);
}

} // namespace kavra
