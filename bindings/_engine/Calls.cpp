#include "bindings/_engine/Calls.h"

#include <numpy/ndarraytypes.h> // the array struct only: no NumPy function table is used

#include <algorithm>
#include <new>

#include <nanobind/stl/string.h>

#include "core/utils/Exception.h"

namespace nb = nanobind;

namespace kavra {
namespace engine {
namespace {

// The words of a failing cell at a flat position in `shape`, "pvtnum[i, j, k]
// (cell N, counting from 1)": those of the Python side (kavra._arrays), which
// names the cells of its own failures with them.  Throws nb::python_error
// where Python fails.
std::string CellText(std::int64_t position, const std::vector<std::int64_t>& shape)
{
    nb::list extents;
    for (std::int64_t extent : shape)
        extents.append(extent);
    nb::object cells = nb::steal(PySequence_Tuple(extents.ptr()));
    if (!cells.is_valid())
        throw nb::python_error();
    return nb::cast<std::string>(nb::module_::import_("kavra._arrays").attr("index_text")("pvtnum", position, cells));
}

// The words of a failure of the core, by its facts.
std::string Wording(const IHeaderException& e, const Words& words)
{
    const Failure& f = e.failure;
    const std::string at = f.cell >= 0 ? CellText(f.cell, words.shape) : "a cell";
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
        std::string wording;
        try {
            wording = Wording(e, words);
        } catch (nb::python_error& failed) {
            failed.restore();
            return;
        } catch (const std::bad_alloc&) {
            PyErr_NoMemory();
            return;
        }
        PyObject* cause = PyObject_CallFunction(PyExc_RuntimeError, "s", e.Text().c_str());
        PyObject* value = PyObject_CallFunction(PyExc_ValueError, "s", wording.c_str());
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

bool HasType(PyObject* array, std::initializer_list<int> types)
{
    const PyArray_Descr* d = PyArray_DESCR(reinterpret_cast<PyArrayObject*>(array));
    return d->byteorder != '>' && std::find(types.begin(), types.end(), d->type_num) != types.end();
}

bool Writable(PyObject* array)
{
    return PyArray_CHKFLAGS(reinterpret_cast<PyArrayObject*>(array), NPY_ARRAY_WRITEABLE);
}

} // namespace engine
} // namespace kavra
