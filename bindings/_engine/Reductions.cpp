// The K reductions over NumPy arrays: a whole grid's columns in chunks on
// threads (the interpreter lock released), or the selected cells of a
// selection, by core/reductions/ColumnKernels.h.
#include <numpy/ndarraytypes.h> // the array struct only: no NumPy function table is used

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <nanobind/stl/string.h>

#include "bindings/_engine/Calls.h"
#include "bindings/_engine/Engine.h"
#include "bindings/_engine/Held.h"
#include "core/reductions/ColumnKernels.h"
#include "core/utils/ParallelFor.h"

namespace nb = nanobind;

namespace kavra {
namespace engine {
namespace {

template <class F>
void ForKernelType(PyObject* array, F visit)
{
    switch (Kind(array)) {
    case NPY_FLOAT:
        return visit(float());
    case NPY_DOUBLE:
        return visit(double());
    case NPY_INT:
        return visit(std::int32_t());
    case NPY_UINT:
        return visit(std::uint32_t());
    case NPY_LONGLONG:
        return visit(std::int64_t());
    case NPY_ULONGLONG:
        return visit(std::uint64_t());
    }
    Refuse(PyExc_ValueError, "values of an element type without a column kernel, in the machine's byte order");
}

template <class F>
void ForOperation(const std::string& name, F visit)
{
    if (name == columns::Max::name)
        return visit(columns::Max());
    if (name == columns::Min::name)
        return visit(columns::Min());
    if (name == columns::Sum::name)
        return visit(columns::Sum());
    if (name == columns::Average::name)
        return visit(columns::Average());
    Refuse(PyExc_ValueError, "no column reduction " + name);
}

bool SameType(PyObject* a, PyObject* b)
{
    return Kind(a) != -1 && Kind(a) == Kind(b);
}

// reduce_grid(name, values, result, columns, threads): a whole grid's cells in
// cell order (I fastest), values and result contiguous of one element type
// and length, a whole number of layers of `columns` cells; the columns in
// chunks on threads.  Gives None.
template <class Operation, class T>
void ReduceColumnChunks(const char* in, char* out, std::uint64_t n, std::uint64_t columns, unsigned threads)
{
    const std::uint64_t layers = n / columns;
    const std::uint64_t chunk = std::max<std::uint64_t>(1, cellsPerChunk / std::max<std::uint64_t>(layers, 1));
    ParallelChunks(columns, chunk, threads, [&](std::uint64_t first, std::uint64_t last) {
        std::vector<T> accumulator(last - first, Operation::template Initial<T>());
        columns::ReduceGridColumns<Operation>(in, std::ptrdiff_t(n), std::ptrdiff_t(columns), accumulator.data(), out,
                                              std::ptrdiff_t(first), std::ptrdiff_t(last));
    });
}

struct GridJob : Job
{
    void Run() noexcept override
    {
        try {
            reduce(in->Data(), out->Data(), n, columns, threads);
        } catch (...) {
            error = std::current_exception();
        }
    }
    PyObject* Result() override { Py_RETURN_NONE; }

    std::unique_ptr<HeldArray> in, out;
    std::uint64_t n = 0, columns = 0;
    unsigned threads = 1;
    void (*reduce)(const char*, char*, std::uint64_t, std::uint64_t, unsigned) = nullptr;
};

Job* PrepareGridReduction(PyObject* const* args, Py_ssize_t nargs)
{
    CheckArguments(nargs, 5, "reduce_grid");
    const std::string name = nb::cast<std::string>(nb::handle(args[0]));
    PyObject* values = args[1];
    PyObject* result = args[2];
    const std::int64_t columns = nb::cast<std::int64_t>(nb::handle(args[3]));
    const unsigned threads = nb::cast<unsigned>(nb::handle(args[4]));
    // The kernels read their values wherever they lie (unaligned, as from a pickle's buffer).
    if (!IsArray(values) || !IsArray(result) || !Contiguous(values, false) || !Contiguous(result) ||
        !SameType(values, result) || Length(values) != Length(result) || columns < 1 ||
        Length(values) % std::uint64_t(columns) != 0 ||
        !PyArray_CHKFLAGS(reinterpret_cast<PyArrayObject*>(result), NPY_ARRAY_WRITEABLE))
        Refuse(PyExc_ValueError, "reduce_grid takes values and a result of one element type and length, "
                                 "a whole number of layers of `columns` cells");
    auto job = std::make_unique<GridJob>();
    job->words = Words{name, "", {}};
    job->n = Length(values);
    job->columns = std::uint64_t(columns);
    job->threads = job->n >= cellsPerChunk ? UsefulThreads(std::max(1u, threads)) : 1;
    ForOperation(name, [&](auto operation) {
        ForKernelType(values, [&](auto zero) {
            job->reduce = &ReduceColumnChunks<decltype(operation), decltype(zero)>;
        });
    });
    job->in.reset(new HeldArray(values));
    job->out.reset(new HeldArray(result));
    job->unlocked = job->n >= cellsWithoutLock;
    return job.release();
}

} // namespace

PyObject* ReduceGrid(PyObject* self, PyObject* const* args, Py_ssize_t nargs)
{
    return Entry<&PrepareGridReduction>(self, args, nargs);
}

// reduce_selection(name, values, cells, nI, nJ, result): selected cells, the
// value of selected cell s at values[s] and its (i, j, k) at cells[s] (an
// (m, 3) uint16 array, i and j inside nI x nJ), the result contiguous of
// the values' element type.
void ReduceSelection(const std::string& name, nb::object values, nb::object cells, std::int64_t nI, std::int64_t nJ,
                     nb::object result)
{
    const bool cellsFit = IsArray(cells.ptr()) && Contiguous(cells.ptr()) &&
                          PyArray_NDIM(reinterpret_cast<PyArrayObject*>(cells.ptr())) == 2 &&
                          PyArray_DIM(reinterpret_cast<PyArrayObject*>(cells.ptr()), 1) == 3 &&
                          PyArray_DESCR(reinterpret_cast<PyArrayObject*>(cells.ptr()))->type_num == NPY_USHORT;
    if (!cellsFit || !IsArray(values.ptr()) || !IsArray(result.ptr()) || !Contiguous(values.ptr(), false) ||
        !Contiguous(result.ptr()) || !SameType(values.ptr(), result.ptr()) ||
        Length(values.ptr()) != Length(result.ptr()) || 3 * Length(values.ptr()) != Length(cells.ptr()) || nI < 0 ||
        nJ < 0 || !PyArray_CHKFLAGS(reinterpret_cast<PyArrayObject*>(result.ptr()), NPY_ARRAY_WRITEABLE))
        throw nb::value_error("reduce_selection takes values, cells (m, 3) and a result that fit each other");
    HeldArray in(values.ptr()), where(cells.ptr()), out(result.ptr());
    const std::uint16_t* ijk = reinterpret_cast<const std::uint16_t*>(where.Data());
    const std::uint64_t n = Length(values.ptr());
    for (std::uint64_t s = 0; s < n; ++s)
        if (ijk[3 * s] >= nI || ijk[3 * s + 1] >= nJ)
            throw nb::value_error("reduce_selection: a cell outside the grid");
    struct Cell
    {
        std::uint16_t i, j;
    };
    std::vector<Cell> at(n);
    for (std::uint64_t s = 0; s < n; ++s)
        at[s] = Cell{ijk[3 * s], ijk[3 * s + 1]};
    ForOperation(name, [&](auto operation) {
        typedef decltype(operation) Operation;
        ForKernelType(values.ptr(), [&](auto zero) {
            typedef decltype(zero) T;
            std::vector<T> accumulator(std::size_t(nI * nJ), Operation::template Initial<T>());
            std::vector<int> counts(Operation::counts ? std::size_t(nI * nJ) : 0);
            columns::ReduceSelectedColumns<Operation>(in.Data(), sizeof(T), std::ptrdiff_t(n), at.data(), nI, nI * nJ,
                                                      accumulator.data(), counts.data(),
                                                      reinterpret_cast<T*>(out.Data()));
        });
    });
}

} // namespace engine
} // namespace kavra
