#pragma once

// Typed access to NumPy arrays.  TPyArrayWrapper<T> owns one reference to an
// array whose element type is T, identified by NumPy type number; elements
// are always reached through the array's own strides.
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include <boost/python.hpp>

#include "numpy_api.h"

namespace kavra {

// Raise `message` as a Python ValueError and leave through Boost.Python.
[[noreturn]] inline void RaiseValueError(const char* message)
{
    PyErr_SetString(PyExc_ValueError, message);
    throw boost::python::error_already_set();
}

[[noreturn]] inline void RaiseValueError(const std::string& message)
{
    RaiseValueError(message.c_str());
}

// The NumPy type number that a wrapper of T demands and the type character
// it reports for itself.  `long` follows the platform's width, as NumPy's
// NPY_LONG does; NPY_LONGLONG and NPY_ULONGLONG have no wrapper.
template <class T>
struct ArrayElement;
template <>
struct ArrayElement<int> { static constexpr int number = NPY_INT; static constexpr char character = 'i'; };
template <>
struct ArrayElement<unsigned int> { static constexpr int number = NPY_UINT; static constexpr char character = 'I'; };
template <>
struct ArrayElement<long> { static constexpr int number = NPY_LONG; static constexpr char character = 'l'; };
template <>
struct ArrayElement<unsigned long> { static constexpr int number = NPY_ULONG; static constexpr char character = 'L'; };
template <>
struct ArrayElement<float> { static constexpr int number = NPY_FLOAT; static constexpr char character = 'f'; };
template <>
struct ArrayElement<double> { static constexpr int number = NPY_DOUBLE; static constexpr char character = 'd'; };

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
        : m_object(boost::python::handle<>(PyLong_FromLong(0))), m_array(nullptr), m_type(' ')
    {
        if (!IsNumpyArray(object.ptr()))
            return;
        m_object = object;
        m_array = reinterpret_cast<PyArrayObject*>(m_object.ptr());
        m_type = PyArray_DESCR(m_array)->type;
        if (PyArray_DESCR(m_array)->type_num != ArrayElement<T>::number)
            throw std::runtime_error(std::string("TPyArrayWrapper: received a numeric array object with wrong type\n"
                                                 "\tArray is of type: ") +
                                     m_type + "\n\tWrapper type is: " + ArrayElement<T>::character);
    }

    // A new, uninitialised one-dimensional array of `size` elements.
    explicit TPyArrayWrapper(int size) : m_array(nullptr), m_type(' ')
    {
        npy_intp dims[1] = {size};
        Allocate(1, dims);
    }

    // A new, uninitialised two-dimensional array of size0 x size1 elements.
    TPyArrayWrapper(int size0, int size1) : m_array(nullptr), m_type(' ')
    {
        npy_intp dims[2] = {size0, size1};
        Allocate(2, dims);
    }

    const boost::python::object& object() const { return m_object; }
    PyArrayObject* array() const { return m_array; }
    char type() const { return m_type; }

    // Element c of a one-dimensional array and element [i][j] of a
    // two-dimensional one.  The copies through memcpy make unaligned and
    // byte-offset arrays safe to read.
    T Get(npy_intp c) const { return Load(PyArray_BYTES(m_array) + c * PyArray_STRIDE(m_array, 0)); }
    void Set(npy_intp c, T value) const { Store(PyArray_BYTES(m_array) + c * PyArray_STRIDE(m_array, 0), value); }
    T Get(npy_intp i, npy_intp j) const { return Load(Address(i, j)); }
    void Set(npy_intp i, npy_intp j, T value) const { Store(Address(i, j), value); }

private:
    void Allocate(int ndim, npy_intp* dims)
    {
        PyObject* array = PyArray_New(&PyArray_Type, ndim, dims, ArrayElement<T>::number, nullptr, nullptr, 0, 0,
                                      nullptr);
        m_object = boost::python::object(boost::python::handle<>(array)); // a null result raises NumPy's error
        m_array = reinterpret_cast<PyArrayObject*>(array);
        m_type = PyArray_DESCR(m_array)->type;
    }

    char* Address(npy_intp i, npy_intp j) const
    {
        return PyArray_BYTES(m_array) + i * PyArray_STRIDE(m_array, 0) + j * PyArray_STRIDE(m_array, 1);
    }

    static T Load(const char* address)
    {
        T value;
        std::memcpy(&value, address, sizeof(T));
        return value;
    }

    static void Store(char* address, T value) { std::memcpy(address, &value, sizeof(T)); }

    boost::python::object m_object; // the owning reference
    PyArrayObject* m_array;         // the same object, null while no array is held
    char m_type;                    // the descriptor's type character, blank while no array is held
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
        boost::python::handle<>(PyArray_Zeros(2, dims, PyArray_DescrFromType(ArrayElement<T>::number), 0))));
}

// Calls visit(T()) for the element type T of `typeNumber`, and returns what
// it returns.  Any other type number raises ValueError
// "Unsupported array data type = <number>!\n".
template <class Visitor>
auto VisitElementType(int typeNumber, Visitor&& visit)
{
    switch (typeNumber) {
    case NPY_INT:
        return visit(int());
    case NPY_UINT:
        return visit((unsigned int)0);
    case NPY_LONG:
        return visit(long());
    case NPY_ULONG:
        return visit((unsigned long)0);
    case NPY_FLOAT:
        return visit(float());
    case NPY_DOUBLE:
        return visit(double());
    default:
        char message[128];
        std::snprintf(message, sizeof(message), "Unsupported array data type = %d!\n", typeNumber);
        RaiseValueError(message);
    }
}

} // namespace kavra
