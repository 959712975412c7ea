#pragma once

// Typed access to NumPy arrays.  TPyArrayWrapper<T> owns one reference to an
// array whose element type is T, identified by NumPy type number; elements
// are always reached through the array's own strides.
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

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

// The element types of NumPy arrays that the module reads and makes, with
// the NumPy type number that a wrapper of T demands and the type character
// it reports for itself.  This list is the one place that names them: the
// traits below and the switch of VisitElementType are made from it.  Each
// type number has its own entry, also where two have the same width;
// `long` follows the platform's width, as NumPy's NPY_LONG does.
// NPY_LONGLONG and NPY_ULONGLONG have none.
template <class T, int typeNumber, char typeCharacter>
struct ArrayElementType
{
    typedef T type;
    static constexpr int number = typeNumber;
    static constexpr char character = typeCharacter;
};

template <class... Elements>
struct ArrayElementList
{
};

typedef ArrayElementList<ArrayElementType<int, NPY_INT, 'i'>, ArrayElementType<unsigned int, NPY_UINT, 'I'>,
                         ArrayElementType<long, NPY_LONG, 'l'>, ArrayElementType<unsigned long, NPY_ULONG, 'L'>,
                         ArrayElementType<float, NPY_FLOAT, 'f'>, ArrayElementType<double, NPY_DOUBLE, 'd'>>
    ArrayElements;

namespace detail {

template <class T, class List>
struct FindArrayElement;

template <class T, class First, class... Rest>
struct FindArrayElement<T, ArrayElementList<First, Rest...>>
    : std::conditional_t<std::is_same<T, typename First::type>::value, First,
                         FindArrayElement<T, ArrayElementList<Rest...>>>
{
};

} // namespace detail

// ArrayElement<T>::number and ::character: the entry of T in ArrayElements.
template <class T>
struct ArrayElement : detail::FindArrayElement<T, ArrayElements>
{
};

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

private:
    void Allocate(int ndim, npy_intp* dims)
    {
        PyObject* array = PyArray_New(&PyArray_Type, ndim, dims, ArrayElement<T>::number, nullptr, nullptr, 0, 0,
                                      nullptr);
        m_object = boost::python::object(boost::python::handle<>(array)); // a null result raises NumPy's error
        m_array = reinterpret_cast<PyArrayObject*>(array);
        m_type = PyArray_DESCR(m_array)->type;
    }

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

namespace detail {

template <class Visitor, class... Elements>
auto VisitElementType(int typeNumber, Visitor& visit, ArrayElementList<Elements...>)
{
    std::optional<decltype(visit(int()))> result;
    const bool found = ((typeNumber == Elements::number && (result.emplace(visit(typename Elements::type())), true)) ||
                        ...);
    if (!found) {
        char message[128];
        std::snprintf(message, sizeof(message), "Unsupported array data type = %d!\n", typeNumber);
        RaiseValueError(message);
    }
    return std::move(*result);
}

} // namespace detail

// Calls visit(T()) for the element type T of `typeNumber` in ArrayElements,
// and returns what it returns.  Any other type number raises ValueError
// "Unsupported array data type = <number>!\n".
template <class Visitor>
auto VisitElementType(int typeNumber, Visitor&& visit)
{
    return detail::VisitElementType(typeNumber, visit, ArrayElements());
}

} // namespace kavra
