// IntVector: the std::vector<int> of cell numbers that connection lists use.
// It is held by boost::shared_ptr, so a calculation that shortens the vector
// in place is seen by every Python holder.  Iteration goes through
// __getitem__, which checks the index on every step, so a vector changed
// during a loop is never read out of bounds.
#include "TesselPython.h"

#include <climits>
#include <sstream>
#include <string>

namespace bp = boost::python;

namespace tessel {
namespace python {
namespace {

typedef std::vector<int> IntVector;
typedef boost::shared_ptr<IntVector> IntVectorPtr;

void Extend(IntVector& v, bp::object values)
{
    if (PyArray_Check(values.ptr())) {
        const std::vector<int> converted = ValuesFromArrayLike<int>(values, "IntVector");
        v.insert(v.end(), converted.begin(), converted.end());
        return;
    }
    // Converting an item can run Python (__index__), so the items are read
    // from a private sequence and the vector is changed only at the end.
    bp::handle<> items(PrivateSequence(values.ptr(), "IntVector needs an iterable of integers"));
    const Py_ssize_t n = PySequence_Fast_GET_SIZE(items.get());
    std::vector<int> converted;
    converted.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t p = 0; p < n; ++p)
        converted.push_back(static_cast<int>(
            IntegerArgument(PySequence_Fast_GET_ITEM(items.get(), p), INT_MIN, INT_MAX, "IntVector element")));
    v.insert(v.end(), converted.begin(), converted.end());
}

IntVectorPtr FromIterable(bp::object values)
{
    IntVectorPtr v(new IntVector);
    Extend(*v, values);
    return v;
}

std::size_t Position(const IntVector& v, PyObject* index)
{
    // Converting the index can run Python (__index__) that changes the
    // vector: the size is read after it.
    const long long p = IntegerArgument(index, LLONG_MIN, LLONG_MAX, "index");
    return NormalizeIndex(p, v.size(), "index out of range");
}

int GetItem(const IntVector& v, bp::object index) { return v[Position(v, index.ptr())]; }

// The value is converted first: its __index__ may change the vector (a
// calculation can shorten it), and the position is checked against the
// vector as it is when written.
void SetItem(IntVector& v, bp::object index, bp::object value)
{
    const int converted = static_cast<int>(IntegerArgument(value.ptr(), INT_MIN, INT_MAX, "IntVector element"));
    v[Position(v, index.ptr())] = converted;
}

void Append(IntVector& v, bp::object value)
{
    v.push_back(static_cast<int>(IntegerArgument(value.ptr(), INT_MIN, INT_MAX, "IntVector element")));
}

std::size_t Length(const IntVector& v) { return v.size(); }

bp::object ToNumpy(const IntVector& v)
{
    // The array is made from the size it is filled with: making it may run
    // Python (a garbage collection) that changes the vector.
    const IntVector contents(v);
    npy_intp dims[1] = {static_cast<npy_intp>(contents.size())};
    bp::object result(bp::handle<>(PyArray_SimpleNew(1, dims, NPY_INT)));
    int* out = static_cast<int*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(result.ptr())));
    std::copy(contents.begin(), contents.end(), out);
    return result;
}

std::string Repr(const IntVector& v)
{
    std::ostringstream text;
    text << "IntVector([";
    for (std::size_t p = 0; p < v.size(); ++p)
        text << (p ? ", " : "") << v[p];
    text << "])";
    return text.str();
}

// Equal to another IntVector of the same contents; other types are left to
// Python (NotImplemented), so `v == [1, 2]` is False rather than an error.
bp::object Compare(const IntVector& a, bp::object other, bool equal)
{
    bp::extract<const IntVector&> b(other);
    if (!b.check())
        return bp::object(bp::handle<>(bp::borrowed(Py_NotImplemented)));
    return bp::object((a == b()) == equal);
}

bp::object Equal(const IntVector& a, bp::object other) { return Compare(a, other, true); }
bp::object NotEqual(const IntVector& a, bp::object other) { return Compare(a, other, false); }

} // namespace

void RegisterIntVector()
{
    bp::class_<IntVector, IntVectorPtr>("IntVector")
        .def("__init__", bp::make_constructor(&FromIterable))
        .def("__len__", &Length)
        .def("__getitem__", &GetItem)
        .def("__setitem__", &SetItem)
        .def("append", &Append)
        .def("extend", &Extend)
        .def("to_numpy", &ToNumpy)
        .def("__repr__", &Repr)
        .def("__eq__", &Equal)
        .def("__ne__", &NotEqual);
}

} // namespace python
} // namespace tessel
