#include "bindings/_engine/Held.h"

#include <numpy/ndarraytypes.h> // the array struct only: no NumPy function table is used

#include <unordered_map>

namespace kavra {
namespace engine {
namespace {

PyTypeObject* ArrayType()
{
    static PyTypeObject* type = [] {
        PyObject* numpy = PyImport_ImportModule("numpy");
        PyObject* ndarray = numpy ? PyObject_GetAttrString(numpy, "ndarray") : nullptr;
        Py_XDECREF(numpy);
        PyErr_Clear();
        return reinterpret_cast<PyTypeObject*>(ndarray); // kept for the process
    }();
    return type;
}

// The owners marked by calls under way: how many calls hold each, and the
// memory it owned when first marked.  Read and changed under the lock.
struct Mark
{
    unsigned holders;
    void* data;
};

std::unordered_map<PyObject*, Mark>& Marks()
{
    static auto* marks = new std::unordered_map<PyObject*, Mark>; // outlives every call
    return *marks;
}

} // namespace

bool IsArray(PyObject* object)
{
    PyTypeObject* type = ArrayType();
    return type != nullptr && PyObject_TypeCheck(object, type);
}

HeldArray::HeldArray(PyObject* array) : m_array(array), m_owner(nullptr), m_data(nullptr)
{
    Py_INCREF(m_array);
    m_data = static_cast<char*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(m_array)));
    PyObject* owner = m_array;
    while (IsArray(owner) && !PyArray_CHKFLAGS(reinterpret_cast<PyArrayObject*>(owner), NPY_ARRAY_OWNDATA)) {
        PyObject* base = PyArray_BASE(reinterpret_cast<PyArrayObject*>(owner));
        if (base == nullptr)
            break;
        owner = base;
    }
    if (!IsArray(owner))
        return; // a buffer of another object, which keeps it while referenced
    PyArrayObject* ownerArray = reinterpret_cast<PyArrayObject*>(owner);
    auto found = Marks().find(owner);
    if (found != Marks().end()) {
        ++found->second.holders;
    } else if (PyArray_CHKFLAGS(ownerArray, NPY_ARRAY_OWNDATA)) {
        PyArray_CLEARFLAGS(ownerArray, NPY_ARRAY_OWNDATA);
        Marks().emplace(owner, Mark{1, PyArray_DATA(ownerArray)});
    } else {
        return;
    }
    Py_INCREF(owner);
    m_owner = owner;
}

HeldArray::~HeldArray()
{
    if (m_owner != nullptr) {
        auto found = Marks().find(m_owner);
        if (--found->second.holders == 0) {
            PyArrayObject* owner = reinterpret_cast<PyArrayObject*>(m_owner);
            // Replaced memory now belongs to the array again; the old one stays.
            if (PyArray_DATA(owner) == found->second.data && !PyArray_CHKFLAGS(owner, NPY_ARRAY_OWNDATA))
                PyArray_ENABLEFLAGS(owner, NPY_ARRAY_OWNDATA);
            Marks().erase(found);
        }
        Py_DECREF(m_owner);
    }
    Py_DECREF(m_array);
}

} // namespace engine
} // namespace kavra
