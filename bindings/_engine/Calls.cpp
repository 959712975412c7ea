#include "bindings/_engine/Calls.h"

#include <numpy/ndarraytypes.h> // the array struct only: no NumPy function table is used

#include <algorithm>
#include <new>

#include "core/utils/Exception.h"

namespace nb = nanobind;

namespace kavra {
namespace engine {
namespace {

// "name[i, j, k] (cell N, counting from 1)" for a flat position in `shape`.
std::string IndexText(const char* name, std::uint64_t position, const std::vector<std::int64_t>& shape)
{
    std::string index;
    std::uint64_t rest = position;
    std::vector<std::uint64_t> digits(shape.size());
    for (std::size_t d = shape.size(); d-- > 0;) {
        const std::uint64_t extent = static_cast<std::uint64_t>(std::max<std::int64_t>(shape[d], 1));
        digits[d] = rest % extent;
        rest /= extent;
    }
    for (std::size_t d = 0; d < digits.size(); ++d)
        index += (d ? ", " : "") + std::to_string(digits[d]);
    return std::string(name) + "[" + (shape.empty() ? "()" : index) + "] (cell " + std::to_string(position + 1) +
           ", counting from 1)";
}

// The words of a failure of the core, by its facts.
std::string Wording(const IHeaderException& e, const Words& words)
{
    const Failure& f = e.failure;
    const std::string at = f.cell >= 0 ? IndexText("pvtnum", std::uint64_t(f.cell), words.shape) : "a cell";
    switch (f.kind) {
    case Failure::region_past_list: {
        const std::string have = f.count > 1   ? "regions 1 to " + std::to_string(f.count)
                                 : f.count == 1 ? std::string("only region 1")
                                                : std::string("no regions");
        return words.function + ": region " + std::to_string(f.region + 1) + " at " + at + " is not in the " +
               words.kind + " table, which has " + have;
    }
    case Failure::empty_table:
        return words.function + ": region " + std::to_string(f.region + 1) + " of the " + words.kind +
               " table has no rows (needed at " + at + ")";
    case Failure::pinch_out:
        return words.function + ": a connection within one column does not run down across at least two layers (" +
               e.explanation + ")";
    case Failure::unstated:
        break;
    }
    return words.function + ": " + (e.condition.empty() ? e.message : e.condition + " " + e.explanation);
}

} // namespace

void SetError(const std::exception_ptr& error, const Words& words)
{
    try {
        std::rethrow_exception(error);
    } catch (const IHeaderException& e) {
        PyObject* cause = PyObject_CallFunction(PyExc_RuntimeError, "s", e.Text().c_str());
        PyObject* value = PyObject_CallFunction(PyExc_ValueError, "s", Wording(e, words).c_str());
        if (cause == nullptr || value == nullptr) {
            Py_XDECREF(cause);
            Py_XDECREF(value);
            return; // the error of the failed call stays set
        }
        PyException_SetCause(value, cause); // steals cause; the context is suppressed, as by `raise ... from`
        PyErr_SetObject(PyExc_ValueError, value);
        Py_DECREF(value);
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (nb::python_error& e) {
        e.restore();
    } catch (const nb::builtin_exception& e) {
        PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, (words.function + ": " + e.what()).c_str());
    } catch (...) {
        PyErr_SetString(PyExc_RuntimeError, (words.function + ": an unknown failure").c_str());
    }
}

[[noreturn]] void Refuse(PyObject* type, const std::string& message)
{
    PyErr_SetString(type, message.c_str());
    throw nb::python_error();
}

void SetPreparingError()
{
    try {
        throw;
    } catch (nb::python_error& e) {
        e.restore();
    } catch (const nb::builtin_exception& e) {
        PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    }
}

void CheckArguments(Py_ssize_t nargs, Py_ssize_t expected, const char* name)
{
    if (nargs != expected)
        Refuse(PyExc_TypeError, std::string(name) + " takes " + std::to_string(expected) + " positional arguments");
}

std::uint64_t Length(PyObject* array)
{
    PyArrayObject* a = reinterpret_cast<PyArrayObject*>(array);
    std::uint64_t n = 1;
    for (int d = 0; d < PyArray_NDIM(a); ++d)
        n *= static_cast<std::uint64_t>(PyArray_DIMS(a)[d]);
    return n;
}

int Kind(PyObject* array)
{
    const PyArray_Descr* d = PyArray_DESCR(reinterpret_cast<PyArrayObject*>(array));
    if (d->byteorder == '>')
        return -1;
    switch (d->type_num) {
    case NPY_INT:
    case NPY_UINT:
    case NPY_FLOAT:
    case NPY_DOUBLE:
        return d->type_num;
    case NPY_LONG:
    case NPY_LONGLONG:
        return sizeof(long) == 8 || d->type_num == NPY_LONGLONG ? NPY_LONGLONG : NPY_INT;
    case NPY_ULONG:
    case NPY_ULONGLONG:
        return sizeof(long) == 8 || d->type_num == NPY_ULONGLONG ? NPY_ULONGLONG : NPY_UINT;
    default:
        return -1;
    }
}

bool Contiguous(PyObject* array, bool aligned)
{
    return PyArray_CHKFLAGS(reinterpret_cast<PyArrayObject*>(array),
                            NPY_ARRAY_C_CONTIGUOUS | (aligned ? NPY_ARRAY_ALIGNED : 0));
}

} // namespace engine
} // namespace kavra
