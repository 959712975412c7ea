// IntVector: the std::vector<int> of cell numbers that connection lists use.
// It is held by boost::shared_ptr, so a calculation that shortens the vector
// in place is seen by every Python holder.  Iteration goes through
// __getitem__, which checks the index on every step, so a vector changed
// during a loop is never read out of bounds.
#include "tessel_python.h"

#include "bindings/common/BindingHelpers.h"

#include <climits>
#include <sstream>
#include <string>

namespace bp = boost::python;

namespace tessel {
namespace python {
namespace {

typedef std::vector<int> IntVector;
typedef boost::shared_ptr<IntVector> IntVectorPtr;

void extend(IntVector& v, bp::object values)
{
    if (PyArray_Check(values.ptr())) {
        const std::vector<int> converted = values_from_array_like<int>(values, "IntVector");
        v.insert(v.end(), converted.begin(), converted.end());
        return;
    }
    // Converting an item can run Python (__index__), so the items are read
    // from a private sequence and the vector is changed only at the end.
    bp::handle<> items(kavra::python::PrivateSequence(values.ptr(), "IntVector needs an iterable of integers"));
    const Py_ssize_t n = PySequence_Fast_GET_SIZE(items.get());
    std::vector<int> converted;
    converted.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t p = 0; p < n; ++p)
        converted.push_back(static_cast<int>(
            integer_argument(PySequence_Fast_GET_ITEM(items.get(), p), INT_MIN, INT_MAX, "IntVector element")));
    v.insert(v.end(), converted.begin(), converted.end());
}

IntVectorPtr from_iterable(bp::object values)
{
    IntVectorPtr v(new IntVector);
    extend(*v, values);
    return v;
}

std::size_t position(const IntVector& v, PyObject* index)
{
    long long p = integer_argument(index, LLONG_MIN, LLONG_MAX, "index");
    const long long n = static_cast<long long>(v.size());
    if (p < 0)
        p += n;
    if (p < 0 || p >= n)
        raise(PyExc_IndexError, "index out of range");
    return static_cast<std::size_t>(p);
}

int get_item(const IntVector& v, bp::object index) { return v[position(v, index.ptr())]; }

// The value is converted first: its __index__ may change the vector (a
// calculation can shorten it), and the position is checked against the
// vector as it is when written.
void set_item(IntVector& v, bp::object index, bp::object value)
{
    const int converted = static_cast<int>(integer_argument(value.ptr(), INT_MIN, INT_MAX, "IntVector element"));
    v[position(v, index.ptr())] = converted;
}

void append(IntVector& v, bp::object value)
{
    v.push_back(static_cast<int>(integer_argument(value.ptr(), INT_MIN, INT_MAX, "IntVector element")));
}

std::size_t length(const IntVector& v) { return v.size(); }

bp::object to_numpy(const IntVector& v)
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

std::string repr(const IntVector& v)
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
bp::object compare(const IntVector& a, bp::object other, bool equal)
{
    bp::extract<const IntVector&> b(other);
    if (!b.check())
        return bp::object(bp::handle<>(bp::borrowed(Py_NotImplemented)));
    return bp::object((a == b()) == equal);
}

bp::object equal(const IntVector& a, bp::object other) { return compare(a, other, true); }
bp::object not_equal(const IntVector& a, bp::object other) { return compare(a, other, false); }

} // namespace

void register_int_vector()
{
    bp::class_<IntVector, IntVectorPtr>("IntVector")
        .def("__init__", bp::make_constructor(&from_iterable))
        .def("__len__", &length)
        .def("__getitem__", &get_item)
        .def("__setitem__", &set_item)
        .def("append", &append)
        .def("extend", &extend)
        .def("to_numpy", &to_numpy)
        .def("__repr__", &repr)
        .def("__eq__", &equal)
        .def("__ne__", &not_equal);
}

} // namespace python
} // namespace tessel
