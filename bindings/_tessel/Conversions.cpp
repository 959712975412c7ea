#include "TesselPython.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>

namespace bp = boost::python;

namespace tessel {
namespace python {

long long IntegerArgument(PyObject* value, long long lo, long long hi, const char* what)
{
    if (PyBool_Check(value) || !PyIndex_Check(value) || PyArray_Check(value))
        Raise(PyExc_TypeError, std::string(what) + " must be an integer, not " + Py_TYPE(value)->tp_name);
    bp::handle<> index(PyNumber_Index(value));
    int overflow = 0;
    long long result = PyLong_AsLongLongAndOverflow(index.get(), &overflow);
    if (result == -1 && PyErr_Occurred())
        bp::throw_error_already_set();
    if (overflow != 0 || result < lo || result > hi) {
        bp::handle<> text(PyObject_Str(index.get()));
        Raise(PyExc_ValueError, std::string(what) + " = " + PyUnicode_AsUTF8(text.get()) + " is outside [" +
                                    std::to_string(lo) + ", " + std::to_string(hi) + "]");
    }
    return result;
}

void RefuseMasked(PyObject* source, const char* what)
{
    if (!PyArray_Check(source) || PyArray_CheckExact(source))
        return;
    static PyObject* maskedType = nullptr; // numpy.ma.MaskedArray, kept for the life of the process
    if (maskedType == nullptr) {
        bp::object ma(bp::handle<>(PyImport_ImportModule("numpy.ma")));
        bp::object type = ma.attr("MaskedArray");
        maskedType = bp::incref(type.ptr());
    }
    const int masked = PyObject_IsInstance(source, maskedType);
    if (masked < 0)
        bp::throw_error_already_set();
    if (masked)
        Raise(PyExc_TypeError, std::string(what) +
                                   " does not take a masked array, whose mask it would drop: pass "
                                   "a.filled(value), or a.data to ignore the mask");
}

std::string DtypeText(PyArrayObject* array)
{
    bp::object text(bp::handle<>(PyObject_Str(reinterpret_cast<PyObject*>(PyArray_DESCR(array)))));
    return bp::extract<std::string>(text);
}

bp::object AsArray(bp::object source, const char* what)
{
    RefuseMasked(source.ptr(), what);
    return bp::object(bp::handle<>(PyArray_FromAny(source.ptr(), nullptr, 0, 0, 0, nullptr)));
}

bp::object CastArray(PyArrayObject* array, int typenum)
{
    return bp::object(bp::handle<>(
        PyArray_FromAny(reinterpret_cast<PyObject*>(array), PyArray_DescrFromType(typenum), 0, 0,
                        NPY_ARRAY_C_CONTIGUOUS | NPY_ARRAY_ALIGNED | NPY_ARRAY_FORCECAST, nullptr)));
}

namespace {

template <class T, class Wide>
void CopyChecked(PyArrayObject* wide, std::vector<T>& out, const char* what)
{
    const Wide* data = static_cast<const Wide*>(PyArray_DATA(wide));
    for (std::size_t n = 0; n < out.size(); ++n) {
        const Wide v = data[n];
        if ((std::is_signed<Wide>::value && v < static_cast<Wide>(std::numeric_limits<T>::min())) ||
            v > static_cast<Wide>(std::numeric_limits<T>::max()))
            Raise(PyExc_ValueError, std::string(what) + ": value " + std::to_string(v) + " at position " +
                                        std::to_string(n) + " does not fit a 32-bit int");
        out[n] = static_cast<T>(v);
    }
}

} // namespace

template <class T>
std::vector<T> ValuesFromArrayLike(bp::object source, const char* what)
{
    bp::object arrayObject = AsArray(source, what);
    PyArrayObject* array = reinterpret_cast<PyArrayObject*>(arrayObject.ptr());
    const char kind = PyArray_DESCR(array)->kind;
    const bool integral = kind == 'b' || kind == 'i' || kind == 'u';
    if (PyArray_SIZE(array) == 0)
        return std::vector<T>(); // an empty sequence has no element type to check
    if (!integral && (std::is_integral<T>::value || kind != 'f')) {
        Raise(PyExc_TypeError, std::string(what) + " needs " +
                                   (std::is_integral<T>::value ? "integer" : "real") + " values, got dtype " +
                                   DtypeText(array));
    }
    if (PyArray_NDIM(array) != 1)
        Raise(PyExc_ValueError, std::string(what) + " needs one-dimensional values, got " +
                                    std::to_string(PyArray_NDIM(array)) + " dimensions");

    std::vector<T> values(static_cast<std::size_t>(PyArray_SIZE(array)));
    if constexpr (std::is_integral<T>::value) {
        if (kind == 'u') {
            bp::object wide = CastArray(array, NPY_ULONGLONG);
            CopyChecked<T, unsigned long long>(reinterpret_cast<PyArrayObject*>(wide.ptr()), values, what);
        } else {
            bp::object wide = CastArray(array, NPY_LONGLONG);
            CopyChecked<T, long long>(reinterpret_cast<PyArrayObject*>(wide.ptr()), values, what);
        }
    } else {
        bp::object converted = CastArray(array, elementTraits<T>.typenum);
        if (!values.empty())
            std::memcpy(values.data(), PyArray_DATA(reinterpret_cast<PyArrayObject*>(converted.ptr())),
                        values.size() * sizeof(T));
    }
    return values;
}

template std::vector<int> ValuesFromArrayLike<int>(bp::object, const char*);
template std::vector<float> ValuesFromArrayLike<float>(bp::object, const char*);
template std::vector<double> ValuesFromArrayLike<double>(bp::object, const char*);

bp::object ArrayView(bp::object owner, void* data, npy_intp count, int typenum)
{
    static double emptyBuffer[1]; // an empty view still needs a pointer that NumPy does not own
    npy_intp dims[1] = {count};
    if (data == nullptr)
        data = emptyBuffer;
    bp::object array(bp::handle<>(
        PyArray_New(&PyArray_Type, 1, dims, typenum, nullptr, data, 0, NPY_ARRAY_CARRAY, nullptr)));
    Py_INCREF(owner.ptr());
    if (PyArray_SetBaseObject(reinterpret_cast<PyArrayObject*>(array.ptr()), owner.ptr()) < 0)
        bp::throw_error_already_set(); // the base reference is consumed even on failure
    return array;
}

} // namespace python
} // namespace tessel
