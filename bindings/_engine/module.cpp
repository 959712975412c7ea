// kavra._engine: the cell calculations of the calculation list
// (core/Calculations.h), the K reductions and the pinch-out sifting over
// NumPy buffers and the region lists of kavra.tables' values, run in chunks
// on a pool of threads with the interpreter lock released.
//
// A calculation builds the core's arguments over the caller's buffers (an
// input of one element, such as pvtnum=1, is read from a small buffer of
// that value, never spread over the cells), and runs the very core function
// over each chunk of cells.  On threads only where no cell can fail: every
// region number that a cell reaches has a table with rows (checked first,
// in chunks as well).  Otherwise the chunks run in order on the calling
// thread, and the first failing cell ends the call with the cells before it
// written, as the core function over all cells would.
//
// A failure reaches Python once, here: a ValueError in kavra's words built
// from the facts that the core's exception carries (kavra::Failure), from
// the native text built apart from what() (whose buffer is shared by the
// process), with that text as a RuntimeError for its cause.
#include <Python.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <numpy/ndarraytypes.h> // the array struct only: no NumPy function table is used
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/array.h>
#include <nanobind/stl/vector.h>

#include "bindings/_engine/Held.h"
#include "bindings/_engine/Tables.h"
#include "core/Calculations.h"
#include "core/reductions/ColumnKernels.h"
#include "core/reductions/ColumnMaps.h"
#include "core/reductions/RegionTotals.h"
#include "core/utils/ParallelFor.h"
#include "tessel/core/GridFunction.h"

namespace nb = nanobind;
using tessel::core::make_array_grid_function;

namespace kavra {
namespace engine {
namespace {

// Cells per chunk: at least enough that a chunk's setup (the slices, the
// tables flattened) is lost in its cells; larger calls in chunksPerThread
// chunks for each thread, enough that a thread slowed down by others ends
// at most about one chunk after the rest.  A chunk that reads one value
// for every cell (pvtnum=1) holds the least, so that the buffer of that
// value stays small.
constexpr std::uint64_t cellsPerChunk = 1 << 16;
constexpr std::uint64_t chunksPerThread = 8;
// Below this many cells a call keeps the interpreter lock: releasing it costs more.
constexpr std::uint64_t cellsWithoutLock = 1 << 13;

// ---------------------------------------------------------------- the list

typedef void (*Run)(const Tables* tables, const GridFunctionPtr* arguments);

struct Calculation
{
    const char* name;
    const char* list; // nullptr: no tables
    unsigned inputs;
    bool floatInputs; // takes float inputs as they are (EngineVariants)
    Run run;          // the core function as _kavracore calls it
    Run runFloats;    // with EngineVariants, where it takes them; float inputs only
};

template <class List>
const char* ListNameOf()
{
    if constexpr (std::is_same<List, NoTables>::value)
        return nullptr;
    else
        return ListName<List>();
}

// Calls the core function `entry` (an overload set, as a generic callable)
// over the tables and arguments; with `floats`, with the engine's variants
// where it takes them.  (Arrays of double take the calculation's own
// variants: the code made for those alone runs them fastest.)
template <class List, bool floats, class Entry, std::size_t... I>
void CallEntry(Entry entry, const Tables* tables, const GridFunctionPtr* a, std::index_sequence<I...>)
{
    if constexpr (std::is_same<List, NoTables>::value) {
        entry(a[I]...);
    } else {
        const List& list = *tables->Get<List>();
        if constexpr (floats && std::is_invocable<Entry, EngineVariants, const List&, decltype(a[I])...>::value)
            entry(EngineVariants(), list, a[I]...);
        else
            entry(list, a[I]...);
    }
}

// Whether the core function takes EngineVariants (float inputs as they are).
template <class List, std::size_t... I, class Entry>
constexpr bool TakesFloatInputsOf(Entry, std::index_sequence<I...>)
{
    if constexpr (std::is_same<List, NoTables>::value)
        return false;
    else
        return std::is_invocable<Entry, EngineVariants, const List&, GridFunctionPtr, detail::AGridFunction<I>...,
                                 GridFunctionPtr>::value;
}

// The overloads of a core function as one generic callable.
#define KAVRA_OVERLOADS(entry)                                                     \
    [](auto&&... a) -> decltype(kavra::entry(std::forward<decltype(a)>(a)...)) { \
        return kavra::entry(std::forward<decltype(a)>(a)...);                      \
    }
#define KAVRA_ARGUMENTS(List, inputs) ((std::is_same<List, NoTables>::value ? 1 : 2) + inputs)
#define KAVRA_ENGINE_CELL(name, entry, List, inputs, kavracore)                                                  \
    Calculation{#name, ListNameOf<List>(), inputs,                                                               \
                TakesFloatInputsOf<List>(KAVRA_OVERLOADS(entry), std::make_index_sequence<inputs>()),            \
                [](const Tables* tables, const GridFunctionPtr* arguments) {                                     \
                    CallEntry<List, false>(KAVRA_OVERLOADS(entry), tables, arguments,                            \
                                           std::make_index_sequence<KAVRA_ARGUMENTS(List, inputs)>());           \
                },                                                                                               \
                [](const Tables* tables, const GridFunctionPtr* arguments) {                                     \
                    CallEntry<List, true>(KAVRA_OVERLOADS(entry), tables, arguments,                             \
                                          std::make_index_sequence<KAVRA_ARGUMENTS(List, inputs)>());            \
                }},
#define KAVRA_ENGINE_OTHER(entry)

const Calculation calculations[] = {KAVRA_CALCULATIONS(KAVRA_ENGINE_CELL, KAVRA_ENGINE_OTHER)};

// The regions, the inputs and the result of the calculation with the most.
#define KAVRA_ENGINE_ARGUMENTS(name, entry, List, inputs, kavracore) KAVRA_ARGUMENTS(List, inputs),
constexpr std::size_t argumentCounts[] = {KAVRA_CALCULATIONS(KAVRA_ENGINE_ARGUMENTS, KAVRA_ENGINE_OTHER)};
constexpr std::size_t mostArguments = [] {
    std::size_t most = 0;
    for (std::size_t count : argumentCounts)
        most = count > most ? count : most;
    return most;
}();

const Calculation* Find(const std::string& name)
{
    for (const Calculation& c : calculations)
        if (name == c.name)
            return &c;
    return nullptr;
}

// ---------------------------------------------------------------- failures

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

// Who is calling, for the words of a failure.
struct Words
{
    std::string function;              // kavra's function
    std::string kind;                  // the table's name ("PVTO", "TPVTList", ...)
    std::vector<std::int64_t> shape;   // of the cells
};

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

// Sets the Python error of a failure that `error` holds; the lock is held.
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

// ---------------------------------------------------------------- calls

// Raises the Python error `type` with `message`, through nanobind.
[[noreturn]] void Refuse(PyObject* type, const std::string& message)
{
    PyErr_SetString(type, message.c_str());
    throw nb::python_error();
}

// What a call that releases the interpreter lock does: checked and held
// with the lock (Prepare), run without it (Run, which keeps its failure),
// finished with it (the result, or the failure as a Python error).
struct Job
{
    virtual ~Job() = default;
    virtual void Run() noexcept = 0;
    virtual PyObject* Result() = 0; // a new reference
    bool unlocked = false;          // run without the lock
    std::exception_ptr error;
    Words words;
};

// Sets the Python error of a failure while preparing or finishing.
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

// The Python entry of a Job: no frame here has a cleanup or a handler around
// taking the lock back (see WithoutLock), so a thread that the finalizing
// interpreter ends there unwinds to its start untouched.  The job's
// references are then never released: the process is ending.
template <Job* (*prepare)(PyObject* const* args, Py_ssize_t nargs)>
PyObject* Entry(PyObject*, PyObject* const* args, Py_ssize_t nargs)
{
    Job* job = nullptr;
    try {
        job = prepare(args, nargs);
    } catch (...) {
        SetPreparingError();
        return nullptr;
    }
    if (job->unlocked) {
        PyThreadState* state = PyEval_SaveThread();
        job->Run();
        PyEval_RestoreThread(state);
    } else {
        job->Run();
    }
    PyObject* result = nullptr;
    try {
        if (job->error)
            SetError(job->error, job->words);
        else
            result = job->Result();
    } catch (...) {
        SetPreparingError();
    }
    delete job;
    return result;
}

void CheckArguments(Py_ssize_t nargs, Py_ssize_t expected, const char* name)
{
    if (nargs != expected)
        Refuse(PyExc_TypeError, std::string(name) + " takes " + std::to_string(expected) + " positional arguments");
}

// ---------------------------------------------------------------- operands

enum class Element
{
    int32,
    float32,
    float64
};

// One argument of a calculation: the caller's buffer of n elements, or of
// one element that every cell reads.
struct Operand
{
    std::unique_ptr<HeldArray> held;
    Element type;
    bool single;
    std::vector<char> spread; // a chunk's worth of the single value
};

std::uint64_t Length(PyObject* array)
{
    PyArrayObject* a = reinterpret_cast<PyArrayObject*>(array);
    std::uint64_t n = 1;
    for (int d = 0; d < PyArray_NDIM(a); ++d)
        n *= static_cast<std::uint64_t>(PyArray_DIMS(a)[d]);
    return n;
}

// The element type of an array in the machine's byte order, as a NumPy type
// number with the 64-bit integers under one number each; -1 for any other.
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

// ---------------------------------------------------------------- a cell calculation

struct CellJob : Job
{
    void Run() noexcept override;
    PyObject* Result() override { return Py_NewRef(out.ptr()); }

    const Calculation* calculation = nullptr;
    nb::object out;
    nb::object tablesObject; // kept alive for the call
    const Tables* tables = nullptr;
    std::vector<Operand> operands; // [regions,] inputs..., result
    std::uint64_t n = 0;
    unsigned threads = 1;
    std::uint64_t chunk = cellsPerChunk;
    bool floats = false; // float32 inputs
    boost::shared_ptr<void> keeper; // of the slices: the buffers are the caller's
};

template <class T>
GridFunctionPtr Slice(CellJob& job, Operand& operand, std::uint64_t begin, std::uint64_t end)
{
    T* data = operand.single ? reinterpret_cast<T*>(operand.spread.data())
                             : reinterpret_cast<T*>(operand.held->Data()) + begin;
    return make_array_grid_function<T>(data, end - begin, job.keeper);
}

GridFunctionPtr SliceOf(CellJob& job, Operand& operand, std::uint64_t begin, std::uint64_t end)
{
    switch (operand.type) {
    case Element::int32:
        return Slice<int>(job, operand, begin, end);
    case Element::float32:
        return Slice<float>(job, operand, begin, end);
    case Element::float64:
        break;
    }
    return Slice<double>(job, operand, begin, end);
}

void RunChunk(CellJob& job, std::uint64_t begin, std::uint64_t end)
{
    GridFunctionPtr arguments[mostArguments];
    for (std::size_t a = 0; a < job.operands.size(); ++a)
        arguments[a] = SliceOf(job, job.operands[a], begin, end);
    try {
        (job.floats ? job.calculation->runFloats : job.calculation->run)(job.tables, arguments);
    } catch (IHeaderException& failure) {
        if (failure.failure.cell >= 0)
            failure.failure.cell += static_cast<std::int64_t>(begin);
        throw;
    }
}

// Whether any cell's region number is past the list, or names a region without rows.
bool AnyRegionFails(CellJob& job)
{
    const Tables& tables = *job.tables;
    const Operand& regions = job.operands[0];
    const std::uint64_t count = tables.Count();
    const bool anyEmpty = tables.AnyEmpty();
    auto fails = [&](int region) {
        return region >= 1 && (std::uint64_t(region) > count || (anyEmpty && tables.Empty(region - 1)));
    };
    if (regions.single)
        return fails(*reinterpret_cast<const int*>(regions.spread.data()));
    const int* numbers = reinterpret_cast<const int*>(regions.held->Data());
    std::atomic<bool> found{false};
    ParallelChunks(job.n, cellsPerChunk * 4, job.threads, [&](std::uint64_t begin, std::uint64_t end) {
        if (found.load(std::memory_order_relaxed))
            return;
        int largest = 0;
        bool failing = false;
        for (std::uint64_t c = begin; c < end; ++c)
            largest = std::max(largest, numbers[c]);
        if (anyEmpty)
            for (std::uint64_t c = begin; c < end && !failing; ++c)
                failing = fails(numbers[c]);
        if (failing || fails(largest))
            found.store(true, std::memory_order_relaxed);
    });
    return found.load();
}

void CellJob::Run() noexcept
{
    try {
        unsigned useful = threads;
        if (useful > 1 && n > cellsPerChunk && tables != nullptr && AnyRegionFails(*this))
            useful = 1; // in order, to the first failing cell
        ParallelChunks(n, chunk, useful,
                       [this](std::uint64_t begin, std::uint64_t end) { RunChunk(*this, begin, end); });
    } catch (...) {
        error = std::current_exception();
    }
}

Element ElementOf(PyObject* array)
{
    switch (Kind(array)) {
    case NPY_INT:
        return Element::int32;
    case NPY_FLOAT:
        return Element::float32;
    case NPY_DOUBLE:
        return Element::float64;
    }
    Refuse(PyExc_ValueError, "an array of an element type the engine does not take");
}

bool Contiguous(PyObject* array, bool aligned = true)
{
    return PyArray_CHKFLAGS(reinterpret_cast<PyArrayObject*>(array),
                            NPY_ARRAY_C_CONTIGUOUS | (aligned ? NPY_ARRAY_ALIGNED : 0));
}

Operand MakeOperand(nb::handle array, std::uint64_t n, bool writable, const char* what)
{
    if (!IsArray(array.ptr()))
        Refuse(PyExc_TypeError, std::string(what) + " must be a NumPy array");
    PyArrayObject* a = reinterpret_cast<PyArrayObject*>(array.ptr());
    const std::uint64_t length = Length(array.ptr());
    if (!Contiguous(array.ptr()) || (length != n && (writable || length != 1)))
        Refuse(PyExc_ValueError, std::string(what) + " must be a contiguous array of the cells' count");
    if (writable && !PyArray_CHKFLAGS(a, NPY_ARRAY_WRITEABLE))
        Refuse(PyExc_ValueError, std::string(what) + " is read-only");
    Operand operand;
    operand.type = ElementOf(array.ptr());
    operand.single = length == 1 && n != 1 && !writable;
    operand.held.reset(new HeldArray(array.ptr()));
    if (operand.single) {
        const std::size_t size = operand.type == Element::float64 ? 8 : 4;
        const std::uint64_t cells = std::min(n, cellsPerChunk);
        operand.spread.resize(cells * size);
        for (std::uint64_t c = 0; c < cells; ++c)
            std::memcpy(operand.spread.data() + c * size, operand.held->Data(), size);
    }
    return operand;
}

// calculate(name, tables, regions, inputs, out, words, threads): the
// calculation `name` of the list over the Tables `tables` (None without
// tables), the int32 region numbers `regions` (None without tables), the
// arrays `inputs` and the result `out`, each contiguous, of the cells' count
// (an input or the regions also of one element, read by every cell).  out is
// float64, or float32 where the inputs are all float32 and the calculation
// takes float inputs.  words = (function, table name, shape) name the
// failures.  Gives out.
Job* PrepareCalculation(PyObject* const* args, Py_ssize_t nargs)
{
    CheckArguments(nargs, 7, "calculate");
    auto job = std::make_unique<CellJob>();
    const std::string name = nb::cast<std::string>(nb::handle(args[0]));
    nb::handle tables(args[1]), regions(args[2]), out(args[4]);
    nb::sequence inputs = nb::cast<nb::sequence>(nb::handle(args[3]));
    nb::tuple words = nb::cast<nb::tuple>(nb::handle(args[5]));
    const unsigned threads = nb::cast<unsigned>(nb::handle(args[6]));
    job->calculation = Find(name);
    if (job->calculation == nullptr)
        Refuse(PyExc_ValueError, "no calculation " + name);
    const Calculation& c = *job->calculation;
    job->words = Words{nb::cast<std::string>(words[0]), nb::cast<std::string>(words[1]),
                       nb::cast<std::vector<std::int64_t>>(words[2])};
    if (!IsArray(out.ptr()))
        Refuse(PyExc_TypeError, "out must be a NumPy array");
    job->out = nb::borrow(out);
    job->n = Length(out.ptr());
    if (c.list != nullptr) {
        if (!nb::isinstance<Tables>(tables) || nb::cast<const Tables&>(tables).Name() != c.list)
            Refuse(PyExc_TypeError, name + " takes the tables of a " + c.list);
        job->tablesObject = nb::borrow(tables);
        job->tables = &nb::cast<const Tables&>(tables);
        job->operands.push_back(MakeOperand(regions, job->n, false, "regions"));
        if (job->operands.back().type != Element::int32)
            Refuse(PyExc_ValueError, "regions must be int32");
    }
    if (nb::len(inputs) != c.inputs)
        Refuse(PyExc_ValueError, name + " takes " + std::to_string(c.inputs) + " inputs");
    const std::size_t first = job->operands.size();
    for (nb::handle input : inputs)
        job->operands.push_back(MakeOperand(input, job->n, false, "an input"));
    job->operands.push_back(MakeOperand(out, job->n, true, "out"));
    // The element types of the variants: float64 throughout; with float
    // inputs, float32 inputs into a float64 or float32 result.
    bool floats = false, doubles = false;
    for (std::size_t a = first; a + 1 < job->operands.size(); ++a)
        (job->operands[a].type == Element::float32 ? floats : doubles) = true;
    const Element result = job->operands.back().type;
    const bool typed = (!floats && result == Element::float64) ||
                       (c.floatInputs && floats && !doubles && result != Element::int32);
    job->floats = floats;
    if (!typed)
        Refuse(PyExc_ValueError, name + " takes float64 arrays" +
                                     (c.floatInputs ? ", or float32 inputs into a float32 or float64 out" : ""));
    job->threads = UsefulThreads(std::max(1u, threads));
    const bool single = std::any_of(job->operands.begin(), job->operands.end(),
                                    [](const Operand& o) { return o.single; });
    if (!single)
        job->chunk = std::max(cellsPerChunk, job->n / (chunksPerThread * job->threads));
    job->keeper = boost::shared_ptr<void>(job.get(), [](void*) {});
    job->unlocked = job->n >= cellsWithoutLock;
    return job.release();
}

// ---------------------------------------------------------------- K reductions

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

// ---------------------------------------------------------------- maps and totals

bool HasType(PyObject* array, std::initializer_list<int> types)
{
    const PyArray_Descr* d = PyArray_DESCR(reinterpret_cast<PyArrayObject*>(array));
    return d->byteorder != '>' && std::find(types.begin(), types.end(), d->type_num) != types.end();
}

bool Writable(PyObject* array)
{
    return PyArray_CHKFLAGS(reinterpret_cast<PyArrayObject*>(array), NPY_ARRAY_WRITEABLE);
}

// A call that writes into the caller's arrays and gives None: `run` over the
// job itself, its failure kept.
template <class Self>
struct WritingJob : Job
{
    void Run() noexcept override
    {
        try {
            run(static_cast<Self&>(*this));
        } catch (...) {
            error = std::current_exception();
        }
    }
    PyObject* Result() override { Py_RETURN_NONE; }
    void (*run)(Self&) = nullptr;
};

struct MapJob : WritingJob<MapJob>
{
    std::unique_ptr<HeldArray> values, weights, active, map, empty;
    std::int64_t nI = 0, nJ = 0, nK = 0;
    bool runs = false;
    maps::Reduce reduce = maps::Reduce::sum;
    unsigned threads = 1;
};

template <class T>
void RunMap(MapJob& job)
{
    const maps::Cells<T> cells{reinterpret_cast<const T*>(job.values->Data()),
                               job.weights ? reinterpret_cast<const T*>(job.weights->Data()) : nullptr,
                               job.active ? reinterpret_cast<const std::uint8_t*>(job.active->Data()) : nullptr,
                               job.nI, job.nJ, job.nK,
                               job.runs ? maps::Layout::runs : maps::Layout::layers};
    const std::uint64_t columns = std::uint64_t(job.nI * job.nJ);
    const std::uint64_t layers = std::uint64_t(std::max<std::int64_t>(job.nK, 1));
    const std::uint64_t chunk = std::max<std::uint64_t>(
        {1, cellsPerChunk / layers, columns / (chunksPerThread * job.threads)});
    double* map = reinterpret_cast<double*>(job.map->Data());
    std::uint8_t* empty = reinterpret_cast<std::uint8_t*>(job.empty->Data());
    ParallelChunks(columns, chunk, job.threads, [&](std::uint64_t first, std::uint64_t last) {
        maps::MapColumns(cells, job.reduce, std::ptrdiff_t(first), std::ptrdiff_t(last), map, empty);
    });
}

// column_map(reduce, values, weights, active, nI, nJ, nK, runs, map, empty,
// threads): one value per column of a grid of nI x nJ x nK cells into map
// (float64, nJ x nI, I fastest), and whether the column took no cell into
// empty (bool, the same).  values contiguous float32 or float64 in the
// layers (I fastest) or runs (K fastest) layout; weights None or as values;
// active None or bool, one per cell.  reduce: "sum", "mean", "max" or "min".
// Gives None.
Job* PrepareColumnMap(PyObject* const* args, Py_ssize_t nargs)
{
    CheckArguments(nargs, 11, "column_map");
    auto job = std::make_unique<MapJob>();
    const std::string reduce = nb::cast<std::string>(nb::handle(args[0]));
    PyObject *values = args[1], *weights = args[2], *active = args[3], *map = args[8], *empty = args[9];
    job->nI = nb::cast<std::int64_t>(nb::handle(args[4]));
    job->nJ = nb::cast<std::int64_t>(nb::handle(args[5]));
    job->nK = nb::cast<std::int64_t>(nb::handle(args[6]));
    job->runs = nb::cast<bool>(nb::handle(args[7]));
    const unsigned threads = nb::cast<unsigned>(nb::handle(args[10]));
    const maps::Reduce reduces[] = {maps::Reduce::sum, maps::Reduce::mean, maps::Reduce::max, maps::Reduce::min};
    const char* names[] = {"sum", "mean", "max", "min"};
    const auto found = std::find(std::begin(names), std::end(names), reduce);
    if (found == std::end(names))
        Refuse(PyExc_ValueError, "column_map: no reduction " + reduce);
    job->reduce = reduces[found - std::begin(names)];
    const std::int64_t most = std::int64_t(1) << 20; // any grid of kavra's has fewer than 2^16 cells a side
    const bool fits = job->nI >= 0 && job->nJ >= 0 && job->nK >= 0 && job->nI < most && job->nJ < most &&
                      job->nK < most && IsArray(values) && IsArray(map) &&
                      IsArray(empty) && Contiguous(values) && Contiguous(map) && Contiguous(empty) &&
                      HasType(values, {NPY_FLOAT, NPY_DOUBLE}) && HasType(map, {NPY_DOUBLE}) &&
                      HasType(empty, {NPY_BOOL}) && Writable(map) && Writable(empty);
    const std::uint64_t n = std::uint64_t(job->nI) * std::uint64_t(job->nJ) * std::uint64_t(job->nK);
    const std::uint64_t columns = std::uint64_t(job->nI) * std::uint64_t(job->nJ);
    if (!fits || Length(values) != n || Length(map) != columns || Length(empty) != columns)
        Refuse(PyExc_ValueError, "column_map takes contiguous float32 or float64 values of nI x nJ x nK cells, a "
                                 "float64 map and a bool flag of nI x nJ columns");
    if (weights != Py_None &&
        (!IsArray(weights) || !Contiguous(weights) || !SameType(weights, values) || Length(weights) != n))
        Refuse(PyExc_ValueError, "column_map takes contiguous weights of the values' element type and length");
    if (active != Py_None &&
        (!IsArray(active) || !Contiguous(active) || !HasType(active, {NPY_BOOL}) || Length(active) != n))
        Refuse(PyExc_ValueError, "column_map takes a contiguous bool active flag per cell");
    job->words = Words{"column_map", "", {}};
    job->threads = n >= cellsPerChunk ? UsefulThreads(std::max(1u, threads)) : 1;
    job->run = HasType(values, {NPY_FLOAT}) ? &RunMap<float> : &RunMap<double>;
    job->values.reset(new HeldArray(values));
    if (weights != Py_None)
        job->weights.reset(new HeldArray(weights));
    if (active != Py_None)
        job->active.reset(new HeldArray(active));
    job->map.reset(new HeldArray(map));
    job->empty.reset(new HeldArray(empty));
    job->unlocked = n >= cellsWithoutLock;
    return job.release();
}

struct TotalsJob : WritingJob<TotalsJob>
{
    std::unique_ptr<HeldArray> values, regions, out;
    std::uint64_t n = 0, count = 0;
    bool oneRegion = false;
    unsigned threads = 1;
    std::vector<double> sums, compensations; // per block and region
};

template <class T>
void RunTotals(TotalsJob& job)
{
    const T* values = reinterpret_cast<const T*>(job.values->Data());
    const int* regions = reinterpret_cast<const int*>(job.regions->Data());
    const std::uint64_t blocks = totals::Blocks(job.n, job.count);
    ParallelChunks(blocks, 1, job.threads, [&](std::uint64_t first, std::uint64_t last) {
        for (std::uint64_t b = first; b < last; ++b)
            totals::SumBlock(values, regions, job.oneRegion, job.n, job.count, b, &job.sums[b * job.count],
                             &job.compensations[b * job.count]);
    });
    totals::CombineBlocks(job.sums.data(), job.compensations.data(), blocks, job.count,
                          reinterpret_cast<double*>(job.out->Data()));
}

// region_totals(values, regions, out, threads): the total of the values
// (contiguous float32 or float64) of the cells of each region 1..len(out)
// into out (float64), the region of each cell in regions (int32, one per
// cell, or one for every cell); other region numbers take no part.  The same
// bits for any number of threads.  Gives None.
Job* PrepareRegionTotals(PyObject* const* args, Py_ssize_t nargs)
{
    CheckArguments(nargs, 4, "region_totals");
    PyObject *values = args[0], *regions = args[1], *out = args[2];
    const unsigned threads = nb::cast<unsigned>(nb::handle(args[3]));
    if (!IsArray(values) || !IsArray(regions) || !IsArray(out) || !Contiguous(values) || !Contiguous(regions) ||
        !Contiguous(out) || !HasType(values, {NPY_FLOAT, NPY_DOUBLE}) || Kind(regions) != NPY_INT ||
        !HasType(out, {NPY_DOUBLE}) || !Writable(out) ||
        (Length(regions) != Length(values) && Length(regions) != 1))
        Refuse(PyExc_ValueError, "region_totals takes contiguous float32 or float64 values, int32 regions of "
                                 "their length (or one) and a float64 out");
    auto job = std::make_unique<TotalsJob>();
    job->words = Words{"region_totals", "", {}};
    job->n = Length(values);
    job->count = Length(out);
    job->oneRegion = Length(regions) == 1 && job->n != 1;
    const std::uint64_t partials = totals::Blocks(job->n, job->count) * job->count;
    job->sums.assign(partials, 0.0);
    job->compensations.assign(partials, 0.0);
    job->threads = job->n >= cellsPerChunk ? UsefulThreads(std::max(1u, threads)) : 1;
    job->run = HasType(values, {NPY_FLOAT}) ? &RunTotals<float> : &RunTotals<double>;
    job->values.reset(new HeldArray(values));
    job->regions.reset(new HeldArray(regions));
    job->out.reset(new HeldArray(out));
    job->unlocked = job->n >= cellsWithoutLock;
    return job.release();
}

// ---------------------------------------------------------------- pinch-outs

// A NumPy array that owns the elements of `values`.
template <class T>
nb::object ToArray(std::vector<T>&& values)
{
    auto* owned = new std::vector<T>(std::move(values));
    nb::capsule owner(owned, [](void* p) noexcept { delete static_cast<std::vector<T>*>(p); });
    return nb::cast(nb::ndarray<nb::numpy, T, nb::ndim<1>>(owned->data(), {owned->size()}, owner));
}

typedef nb::ndarray<const int, nb::ndim<1>, nb::c_contig, nb::device::cpu> Connections;
typedef nb::ndarray<const std::uint16_t, nb::ndim<2>, nb::shape<-1, 3>, nb::c_contig, nb::device::cpu> SelectedCells;

// transmissibility_k(nnc1, nnc2, grid, cells): the core's sifting of int32
// connection lists over the selection `cells` ((m, 3) uint16 (i, j, k), in
// selection order) of a grid of `grid` = (nI, nJ, nK) cells.  Gives the kept
// lists (int32) and the marks (float64, one per selected cell).
nb::tuple TransmissibilityK(Connections nnc1, Connections nnc2, std::array<std::uint16_t, 3> grid,
                            SelectedCells cells)
{
    std::vector<tessel::strata::CellIJK> selected(cells.shape(0));
    for (std::size_t s = 0; s < selected.size(); ++s)
        selected[s] = tessel::strata::CellIJK{cells(s, 0), cells(s, 1), cells(s, 2)};
    auto parent = boost::make_shared<tessel::strata::ReservoirTopology>(grid[0], grid[1], grid[2]);
    tessel::strata::ReservoirSelectionTopologyPtr selection;
    try {
        selection = boost::make_shared<tessel::strata::ReservoirSelectionTopology>(parent, std::move(selected));
    } catch (const std::out_of_range& e) {
        Refuse(PyExc_ValueError, std::string("transmissibility_k: ") + e.what());
    }
    auto marks = make_array_grid_function<double>(std::vector<double>(selection->number_of_selected_cells));
    auto first = boost::make_shared<std::vector<int>>(nnc1.data(), nnc1.data() + nnc1.shape(0));
    auto second = boost::make_shared<std::vector<int>>(nnc2.data(), nnc2.data() + nnc2.shape(0));
    try {
        CalcTransmissibilityK(first, second, selection, tessel::core::make_selection_view(selection, marks));
    } catch (...) {
        SetError(std::current_exception(), Words{"transmissibility_k", "", {}});
        throw nb::python_error();
    }
    std::vector<double> trank(marks->data, marks->data + marks->count);
    return nb::make_tuple(ToArray(std::move(*first)), ToArray(std::move(*second)), ToArray(std::move(trank)));
}

nb::dict CalculationList()
{
    nb::dict list;
    for (const Calculation& c : calculations)
        list[c.name] = nb::make_tuple(c.list ? nb::object(nb::str(c.list)) : nb::none(), c.inputs, c.floatInputs);
    return list;
}

} // namespace
} // namespace engine
} // namespace kavra

NB_MODULE(_engine, m)
{
    using namespace kavra::engine;
    // A table that a thread still holds when the interpreter ends (a daemon
    // thread in a call) is not a leak of this module.
    nb::set_leak_warnings(false);
    m.doc() = "kavra's calculations over NumPy buffers, on a pool of threads (see kavra.calculations)";
    nb::class_<Tables>(m, "Tables", "The region lists of a table value, built once from its numbers")
        .def(nb::init<const std::string&, nb::handle>(), nb::arg("list"), nb::arg("regions"))
        .def_prop_ro("list", &Tables::Name)
        .def("__len__", &Tables::Count);
    static PyMethodDef unlocked[] = {
        {"calculate", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&Entry<&PrepareCalculation>)),
         METH_FASTCALL, "calculate(name, tables, regions, inputs, out, words, threads) -> out"},
        {"reduce_grid", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&Entry<&PrepareGridReduction>)),
         METH_FASTCALL, "reduce_grid(name, values, result, columns, threads) -> None"},
        {"column_map", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&Entry<&PrepareColumnMap>)),
         METH_FASTCALL, "column_map(reduce, values, weights, active, nI, nJ, nK, runs, map, empty, threads) -> None"},
        {"region_totals", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&Entry<&PrepareRegionTotals>)),
         METH_FASTCALL, "region_totals(values, regions, out, threads) -> None"},
        {nullptr, nullptr, 0, nullptr}};
    if (PyModule_AddFunctions(m.ptr(), unlocked) < 0)
        throw nb::python_error();
    m.def("reduce_selection", &ReduceSelection);
    m.def("transmissibility_k", &TransmissibilityK);
    m.attr("CALCULATIONS") = CalculationList();
    m.attr("RECORD_FIELDS") = RecordFieldNames();
    m.attr("CHUNK") = kavra::engine::cellsPerChunk;
}
