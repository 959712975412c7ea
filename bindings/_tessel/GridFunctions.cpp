// Python classes of the grid functions: the abstract chain IGridFunction ->
// typed -> writable typed, the array grid functions of int, float and double,
// and the selection view.
#include "TesselPython.h"

#include <climits>
#include <string>

#include "tessel/core/GridFunction.h"
#include "tessel/strata/ReservoirTopology.h"

namespace bp = boost::python;
using namespace tessel::core;

namespace tessel {
namespace python {
namespace {

handle CheckedHandle(const IGridFunction& gf, PyObject* index)
{
    const long long h = IntegerArgument(index, LLONG_MIN, LLONG_MAX, "handle");
    return static_cast<handle>(NormalizeIndex(h, gf.number_of_elements(), "handle out of range"));
}

double GetDouble(const IGridFunction& gf, bp::object h) { return gf.get_double(CheckedHandle(gf, h.ptr())); }
int GetInt(const IGridFunction& gf, bp::object h) { return gf.get_int(CheckedHandle(gf, h.ptr())); }
void SetDouble(IGridFunction& gf, bp::object h, double v) { gf.set_double(CheckedHandle(gf, h.ptr()), v); }
std::size_t Length(const IGridFunction& gf) { return static_cast<std::size_t>(gf.number_of_elements()); }

template <class T>
void SetValue(IWritableTypeGridFunction<T, T>& gf, bp::object h, T v)
{
    gf.set_value(CheckedHandle(gf, h.ptr()), v);
}

template <class T>
boost::shared_ptr<ArrayGridFunction<T>> MakeArray(bp::object source)
{
    const std::string cls = std::string(elementTraits<T>.name) + "GridFunction";
    PyObject* s = source.ptr();
    if (PyIndex_Check(s) && !PyBool_Check(s) && !PyArray_Check(s)) {
        const long long n = IntegerArgument(s, 0, PY_SSIZE_T_MAX, (cls + " size").c_str());
        if (static_cast<unsigned long long>(n) > std::vector<T>().max_size())
            Raise(PyExc_MemoryError, cls + " of " + std::to_string(n) + " elements cannot be allocated");
        return make_array_grid_function<T>(std::vector<T>(static_cast<std::size_t>(n), T(0)));
    }
    return make_array_grid_function<T>(ValuesFromArrayLike<T>(source, cls.c_str()));
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

void ReleaseKeeper(ArrayKeeper* keeper)
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

// A grid function over the memory of `source`, which must be a NumPy array of
// exactly T: one-dimensional, C-contiguous, aligned, writeable, in the
// machine's byte order.  Nothing is converted or copied.
template <class T>
boost::shared_ptr<ArrayGridFunction<T>> WrapArray(bp::object source)
{
    const std::string what = std::string(elementTraits<T>.name) + "GridFunction.wrap";
    const std::string copyHint =
        " (" + std::string(elementTraits<T>.name) + "GridFunction(values) makes a converted copy)";
    PyObject* s = source.ptr();
    if (!PyArray_Check(s))
        Raise(PyExc_TypeError, what + " needs a NumPy array, got " + Py_TYPE(s)->tp_name + copyHint);
    RefuseMasked(s, what.c_str());
    PyArrayObject* array = reinterpret_cast<PyArrayObject*>(s);
    if (PyArray_DESCR(array)->type_num != elementTraits<T>.typenum)
        Raise(PyExc_TypeError, what + " needs " + elementTraits<T>.dtype + " elements, got " +
                                   DtypeText(array) + copyHint);
    if (!PyArray_ISNOTSWAPPED(array))
        Raise(PyExc_ValueError, what + " needs elements in the machine's byte order, got " + DtypeText(array) +
                                    copyHint);
    if (PyArray_NDIM(array) != 1)
        Raise(PyExc_ValueError, what + " needs a one-dimensional array, got " + std::to_string(PyArray_NDIM(array)) +
                                    " dimensions (a.reshape(-1) is one over the same memory when a is "
                                    "C-contiguous)");
    if (!PyArray_IS_C_CONTIGUOUS(array))
        Raise(PyExc_ValueError, what + " needs a contiguous array" + copyHint);
    if (!PyArray_ISALIGNED(array))
        Raise(PyExc_ValueError, what + " needs an aligned array" + copyHint);
    if (!PyArray_ISWRITEABLE(array))
        Raise(PyExc_ValueError, what + " needs a writeable array: grid functions can be written" + copyHint);

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
    boost::shared_ptr<void> keeping(keeper, &ReleaseKeeper); // deletes keeper if this throws
    keeper->guard = guard.release();
    keeper->array = bp::incref(s);
    return make_array_grid_function<T>(static_cast<T*>(PyArray_DATA(array)),
                                       static_cast<std::uint64_t>(PyArray_SIZE(array)), keeping);
}

// NumPy's view of the elements (the `values` property) answers for the
// array protocol and for indexing.
bp::object GridFunctionArray(bp::object self, bp::object dtype, bp::object copy)
{
    bp::object values = self.attr("values");
    if (dtype.is_none() && copy.is_none())
        return values;
    bp::dict keywords;
    keywords["dtype"] = dtype;
    keywords["copy"] = copy;
    bp::object arrayFunction = bp::import("numpy").attr("array");
    return bp::object(bp::handle<>(PyObject_Call(arrayFunction.ptr(), bp::make_tuple(values).ptr(), keywords.ptr())));
}

bp::object GridFunctionGetItem(bp::object self, bp::object key)
{
    bp::object values = self.attr("values");
    return values[key];
}

void GridFunctionSetItem(bp::object self, bp::object key, bp::object value)
{
    bp::object values = self.attr("values");
    values[key] = value;
}

template <class Class>
void AddArrayProtocol(Class& cls)
{
    cls.def("__array__", &GridFunctionArray, (bp::arg("self"), bp::arg("dtype") = bp::object(),
                                                 bp::arg("copy") = bp::object()))
        .def("__getitem__", &GridFunctionGetItem)
        .def("__setitem__", &GridFunctionSetItem);
}

template <class T>
bp::object ArrayValues(bp::object self)
{
    ArrayGridFunction<T>& gf = bp::extract<ArrayGridFunction<T>&>(self);
    return ArrayView(self, gf.data, static_cast<npy_intp>(gf.count), elementTraits<T>.typenum);
}

template <class T>
std::string ArrayRepr(const ArrayGridFunction<T>& gf)
{
    return std::string(elementTraits<T>.name) + "GridFunction(" + std::to_string(gf.count) + " elements)";
}

template <class T>
void RegisterTyped()
{
    const std::string name = elementTraits<T>.name;
    bp::class_<ITypeGridFunction<T>, boost::shared_ptr<ITypeGridFunction<T>>, bp::bases<IGridFunction>,
               boost::noncopyable>(("I" + name + "TypeGridFunction").c_str(), bp::no_init);
    bp::class_<IWritableTypeGridFunction<T, T>, boost::shared_ptr<IWritableTypeGridFunction<T, T>>,
               bp::bases<ITypeGridFunction<T>>, boost::noncopyable>(
        ("IWritable" + name + "TypeGridFunction").c_str(), bp::no_init)
        .def("set_value", &SetValue<T>);
    bp::class_<ArrayGridFunction<T>, boost::shared_ptr<ArrayGridFunction<T>>,
               bp::bases<IWritableTypeGridFunction<T, T>>, boost::noncopyable>
        arrayClass((name + "GridFunction").c_str(), bp::no_init);
    arrayClass.def("__init__", bp::make_constructor(&MakeArray<T>))
        .def("wrap", &WrapArray<T>)
        .staticmethod("wrap")
        .add_property("values", &ArrayValues<T>)
        .def("__repr__", &ArrayRepr<T>);
    AddArrayProtocol(arrayClass);
}

boost::shared_ptr<SelectionViewGridFunction>
MakeView(const strata::ReservoirSelectionTopologyPtr& selection,
          const boost::shared_ptr<ArrayGridFunction<double>>& backing)
{
    if (!selection)
        Raise(PyExc_ValueError, "SelectionViewGridFunction needs a ReservoirSelectionTopology, not None");
    if (!backing)
        Raise(PyExc_ValueError, "SelectionViewGridFunction needs a DoubleGridFunction, not None");
    return make_selection_view(selection, backing);
}

boost::shared_ptr<ArrayGridFunction<double>> ViewBacking(const SelectionViewGridFunction& view)
{
    return view.backing();
}

bp::object ViewValues(bp::object self)
{
    SelectionViewGridFunction& view = bp::extract<SelectionViewGridFunction&>(self);
    return bp::object(view.backing()).attr("values");
}

std::string ViewRepr(const SelectionViewGridFunction& view)
{
    return "SelectionViewGridFunction(" + std::to_string(view.number_of_elements()) + " elements)";
}

} // namespace

void RegisterGridFunctions()
{
    bp::class_<IGridFunction, boost::shared_ptr<IGridFunction>, boost::noncopyable>("IGridFunction", bp::no_init)
        .def("number_of_elements", &IGridFunction::number_of_elements)
        .def("__len__", &Length)
        .def("get_double", &GetDouble)
        .def("get_int", &GetInt)
        .def("set_double", &SetDouble);

    RegisterTyped<int>();
    RegisterTyped<float>();
    RegisterTyped<double>();

    bp::class_<SelectionViewGridFunction, boost::shared_ptr<SelectionViewGridFunction>,
               bp::bases<IWritableTypeGridFunction<double, double>>, boost::noncopyable>
        viewClass("SelectionViewGridFunction", bp::no_init);
    viewClass.def("__init__", bp::make_constructor(&MakeView))
        .add_property("backing", &ViewBacking)
        .add_property("values", &ViewValues)
        .def("__repr__", &ViewRepr);
    AddArrayProtocol(viewClass);
}

} // namespace python
} // namespace tessel
