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
};
template <>
struct ElementType<float>
{
    static constexpr int typenum = NPY_FLOAT;
    static constexpr const char* name = "Float";
};
template <>
struct ElementType<double>
{
    static constexpr int typenum = NPY_DOUBLE;
    static constexpr const char* name = "Double";
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
               bp::bases<IWritableTypeGridFunction<T, T>>, boost::noncopyable>((name + "GridFunction").c_str(),
                                                                                bp::no_init)
        .def("__init__", bp::make_constructor(&make_array<T>))
        .add_property("values", &array_values<T>)
        .def("__repr__", &array_repr<T>);
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
               bp::bases<IWritableTypeGridFunction<double, double>>, boost::noncopyable>("SelectionViewGridFunction",
                                                                                          bp::no_init)
        .def("__init__", bp::make_constructor(&make_view))
        .add_property("backing", &view_backing)
        .add_property("values", &view_values)
        .def("__repr__", &view_repr);
}

} // namespace python
} // namespace tessel
