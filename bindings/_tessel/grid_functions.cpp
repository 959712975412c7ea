// Python classes of the grid functions: the abstract chain IGridFunction ->
// typed -> writable typed, the array grid functions of int, float and double,
// and the selection view.
#include "tessel_python.h"

#include <climits>
#include <string>

#include "tessel/core/GridFunction.h"
#include "tessel/strata/ReservoirTopology.h"

namespace bp = boost::python;
using namespace tessel::core;

namespace tessel {
namespace python {
namespace {

template <class T>
struct ElementType;
template <>
struct ElementType<int>
{
    static constexpr int typenum = NPY_INT;
    static constexpr const char* name = "Int";
    static constexpr const char* dtype = "int32";
};
template <>
struct ElementType<float>
{
    static constexpr int typenum = NPY_FLOAT;
    static constexpr const char* name = "Float";
    static constexpr const char* dtype = "float32";
};
template <>
struct ElementType<double>
{
    static constexpr int typenum = NPY_DOUBLE;
    static constexpr const char* name = "Double";
    static constexpr const char* dtype = "float64";
};

handle checked_handle(const IGridFunction& gf, PyObject* index)
{
    const long long n = static_cast<long long>(gf.number_of_elements());
    long long h = integer_argument(index, LLONG_MIN, LLONG_MAX, "handle");
    if (h < 0)
        h += n;
    if (h < 0 || h >= n)
        raise(PyExc_IndexError, "handle out of range");
    return static_cast<handle>(h);
}

double get_double(const IGridFunction& gf, bp::object h) { return gf.get_double(checked_handle(gf, h.ptr())); }
int get_int(const IGridFunction& gf, bp::object h) { return gf.get_int(checked_handle(gf, h.ptr())); }
void set_double(IGridFunction& gf, bp::object h, double v) { gf.set_double(checked_handle(gf, h.ptr()), v); }
std::size_t length(const IGridFunction& gf) { return static_cast<std::size_t>(gf.number_of_elements()); }

template <class T>
void set_value(IWritableTypeGridFunction<T, T>& gf, bp::object h, T v)
{
    gf.set_value(checked_handle(gf, h.ptr()), v);
}

template <class T>
boost::shared_ptr<ArrayGridFunction<T>> make_array(bp::object source)
{
    const std::string cls = std::string(ElementType<T>::name) + "GridFunction";
    PyObject* s = source.ptr();
    if (PyIndex_Check(s) && !PyBool_Check(s) && !PyArray_Check(s)) {
        const long long n = integer_argument(s, 0, PY_SSIZE_T_MAX, (cls + " size").c_str());
        if (static_cast<unsigned long long>(n) > std::vector<T>().max_size())
            raise(PyExc_MemoryError, cls + " of " + std::to_string(n) + " elements cannot be allocated");
        return make_array_grid_function<T>(std::vector<T>(static_cast<std::size_t>(n), T(0)));
    }
    return make_array_grid_function<T>(values_from_array_like<T>(source, cls.c_str()));
}

// What a grid function that wraps a NumPy array holds on to: the array, and
// a weak reference to the array that owns the memory, which makes NumPy
// refuse to resize that array in place (even with refcheck=False) while the
// grid function lives.
struct ArrayKeeper
{
    PyObject* array = nullptr;
    PyObject* guard = nullptr;
};

void release_keeper(ArrayKeeper* keeper)
{
    // Dropping the array may run Python (a finaliser of its base object, a
    // weakref callback): the grid function that held it has let go already.
    PyGILState_STATE state = PyGILState_Ensure();
    PyObject* guard = keeper->guard;
    PyObject* array = keeper->array;
    delete keeper;
    Py_XDECREF(guard);
    Py_XDECREF(array);
    PyGILState_Release(state);
}

bool is_masked_array(PyObject* object)
{
    static PyObject* masked_array_type = nullptr; // kept for the life of the process
    if (masked_array_type == nullptr) {
        bp::object ma = bp::import("numpy.ma");
        bp::object type = ma.attr("MaskedArray");
        masked_array_type = bp::incref(type.ptr());
    }
    const int found = PyObject_IsInstance(object, masked_array_type);
    if (found < 0)
        bp::throw_error_already_set();
    return found == 1;
}

std::string dtype_text(PyArrayObject* array)
{
    bp::object text(bp::handle<>(PyObject_Str(reinterpret_cast<PyObject*>(PyArray_DESCR(array)))));
    return bp::extract<std::string>(text);
}

// A grid function over the memory of `source`, which must be a NumPy array of
// exactly T: one-dimensional, C-contiguous, aligned, writeable, in the
// machine's byte order.  Nothing is converted or copied.
template <class T>
boost::shared_ptr<ArrayGridFunction<T>> wrap_array(bp::object source)
{
    const std::string what = std::string(ElementType<T>::name) + "GridFunction.wrap";
    const std::string copy_hint =
        " (" + std::string(ElementType<T>::name) + "GridFunction(values) makes a converted copy)";
    PyObject* s = source.ptr();
    if (!PyArray_Check(s))
        raise(PyExc_TypeError, what + " needs a NumPy array, got " + Py_TYPE(s)->tp_name + copy_hint);
    if (is_masked_array(s))
        raise(PyExc_TypeError, what + " does not take a masked array, whose mask it would drop: "
                                      "pass a.filled(value), or a.data to ignore the mask");
    PyArrayObject* array = reinterpret_cast<PyArrayObject*>(s);
    if (PyArray_DESCR(array)->type_num != ElementType<T>::typenum)
        raise(PyExc_TypeError, what + " needs " + ElementType<T>::dtype + " elements, got " +
                                   dtype_text(array) + copy_hint);
    if (!PyArray_ISNOTSWAPPED(array))
        raise(PyExc_ValueError, what + " needs elements in the machine's byte order, got " + dtype_text(array) +
                                    copy_hint);
    if (PyArray_NDIM(array) != 1)
        raise(PyExc_ValueError, what + " needs a one-dimensional array, got " + std::to_string(PyArray_NDIM(array)) +
                                    " dimensions (a.reshape(-1) is one over the same memory when a is "
                                    "C-contiguous)");
    if (!PyArray_IS_C_CONTIGUOUS(array))
        raise(PyExc_ValueError, what + " needs a contiguous array" + copy_hint);
    if (!PyArray_ISALIGNED(array))
        raise(PyExc_ValueError, what + " needs an aligned array" + copy_hint);
    if (!PyArray_ISWRITEABLE(array))
        raise(PyExc_ValueError, what + " needs a writeable array: grid functions can be written" + copy_hint);

    // The array that owns the memory: follow the chain of NumPy bases.
    PyObject* owner = s;
    while (!PyArray_CHKFLAGS(reinterpret_cast<PyArrayObject*>(owner), NPY_ARRAY_OWNDATA)) {
        PyObject* base = PyArray_BASE(reinterpret_cast<PyArrayObject*>(owner));
        if (base == nullptr || !PyArray_Check(base))
            break;
        owner = base;
    }
    bp::handle<> guard(PyWeakref_NewRef(owner, nullptr));

    ArrayKeeper* keeper = new ArrayKeeper;
    boost::shared_ptr<void> keeping(keeper, &release_keeper); // deletes keeper if this throws
    keeper->guard = guard.release();
    keeper->array = bp::incref(s);
    return make_array_grid_function<T>(static_cast<T*>(PyArray_DATA(array)),
                                       static_cast<std::uint64_t>(PyArray_SIZE(array)), keeping);
}

// NumPy's view of the elements (the `values` property) answers for the
// array protocol and for indexing.
bp::object grid_function_array(bp::object self, bp::object dtype, bp::object copy)
{
    bp::object values = self.attr("values");
    if (dtype.is_none() && copy.is_none())
        return values;
    bp::dict keywords;
    keywords["dtype"] = dtype;
    keywords["copy"] = copy;
    bp::object array_function = bp::import("numpy").attr("array");
    return bp::object(bp::handle<>(PyObject_Call(array_function.ptr(), bp::make_tuple(values).ptr(), keywords.ptr())));
}

bp::object grid_function_getitem(bp::object self, bp::object key)
{
    bp::object values = self.attr("values");
    return values[key];
}

void grid_function_setitem(bp::object self, bp::object key, bp::object value)
{
    bp::object values = self.attr("values");
    values[key] = value;
}

template <class Class>
void add_array_protocol(Class& cls)
{
    cls.def("__array__", &grid_function_array, (bp::arg("self"), bp::arg("dtype") = bp::object(),
                                                 bp::arg("copy") = bp::object()))
        .def("__getitem__", &grid_function_getitem)
        .def("__setitem__", &grid_function_setitem);
}

template <class T>
bp::object array_values(bp::object self)
{
    ArrayGridFunction<T>& gf = bp::extract<ArrayGridFunction<T>&>(self);
    return array_view(self, gf.data, static_cast<npy_intp>(gf.count), ElementType<T>::typenum);
}

template <class T>
std::string array_repr(const ArrayGridFunction<T>& gf)
{
    return std::string(ElementType<T>::name) + "GridFunction(" + std::to_string(gf.count) + " elements)";
}

template <class T>
void register_typed()
{
    const std::string name = ElementType<T>::name;
    bp::class_<ITypeGridFunction<T>, boost::shared_ptr<ITypeGridFunction<T>>, bp::bases<IGridFunction>,
               boost::noncopyable>(("I" + name + "TypeGridFunction").c_str(), bp::no_init);
    bp::class_<IWritableTypeGridFunction<T, T>, boost::shared_ptr<IWritableTypeGridFunction<T, T>>,
               bp::bases<ITypeGridFunction<T>>, boost::noncopyable>(
        ("IWritable" + name + "TypeGridFunction").c_str(), bp::no_init)
        .def("set_value", &set_value<T>);
    bp::class_<ArrayGridFunction<T>, boost::shared_ptr<ArrayGridFunction<T>>,
               bp::bases<IWritableTypeGridFunction<T, T>>, boost::noncopyable>
        array_class((name + "GridFunction").c_str(), bp::no_init);
    array_class.def("__init__", bp::make_constructor(&make_array<T>))
        .def("wrap", &wrap_array<T>)
        .staticmethod("wrap")
        .add_property("values", &array_values<T>)
        .def("__repr__", &array_repr<T>);
    add_array_protocol(array_class);
}

boost::shared_ptr<SelectionViewGridFunction>
make_view(const strata::ReservoirSelectionTopologyPtr& selection,
          const boost::shared_ptr<ArrayGridFunction<double>>& backing)
{
    if (!selection)
        raise(PyExc_ValueError, "SelectionViewGridFunction needs a ReservoirSelectionTopology, not None");
    if (!backing)
        raise(PyExc_ValueError, "SelectionViewGridFunction needs a DoubleGridFunction, not None");
    return make_selection_view(selection, backing);
}

boost::shared_ptr<ArrayGridFunction<double>> view_backing(const SelectionViewGridFunction& view)
{
    return view.backing();
}

bp::object view_values(bp::object self)
{
    SelectionViewGridFunction& view = bp::extract<SelectionViewGridFunction&>(self);
    return bp::object(view.backing()).attr("values");
}

std::string view_repr(const SelectionViewGridFunction& view)
{
    return "SelectionViewGridFunction(" + std::to_string(view.number_of_elements()) + " elements)";
}

} // namespace

void register_grid_functions()
{
    bp::class_<IGridFunction, boost::shared_ptr<IGridFunction>, boost::noncopyable>("IGridFunction", bp::no_init)
        .def("number_of_elements", &IGridFunction::number_of_elements)
        .def("__len__", &length)
        .def("get_double", &get_double)
        .def("get_int", &get_int)
        .def("set_double", &set_double);

    register_typed<int>();
    register_typed<float>();
    register_typed<double>();

    bp::class_<SelectionViewGridFunction, boost::shared_ptr<SelectionViewGridFunction>,
               bp::bases<IWritableTypeGridFunction<double, double>>, boost::noncopyable>
        view_class("SelectionViewGridFunction", bp::no_init);
    view_class.def("__init__", bp::make_constructor(&make_view))
        .add_property("backing", &view_backing)
        .add_property("values", &view_values)
        .def("__repr__", &view_repr);
    add_array_protocol(view_class);
}

} // namespace python
} // namespace tessel
