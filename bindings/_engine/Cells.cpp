// The cell calculations of the list (core/Calculations.h) over NumPy
// buffers and the region lists of kavra.tables' values.
//
// A calculation builds the core's arguments over the caller's buffers (an
// input of one element, such as pvtnum=1, is read from a small buffer of
// that value, never spread over the cells), and runs the very core function
// over each chunk of cells.  On threads only where no cell can fail: every
// region number that a cell reaches has a table with rows (checked first,
// in chunks as well).  Otherwise the chunks run in order on the calling
// thread, and the first failing cell ends the call with the cells before it
// written, as the core function over all cells would.
#include <numpy/ndarraytypes.h> // the array struct only: no NumPy function table is used

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "bindings/_engine/Calls.h"
#include "bindings/_engine/Engine.h"
#include "bindings/_engine/Held.h"
#include "bindings/_engine/Tables.h"
#include "core/Calculations.h"
#include "core/utils/ParallelFor.h"
#include "tessel/core/GridFunction.h"

namespace nb = nanobind;
using tessel::core::make_array_grid_function;

namespace kavra {
namespace engine {

// Cells per chunk: at least enough that a chunk's setup (the slices, the
// tables flattened) is lost in its cells; larger calls in chunksPerThread
// chunks for each thread, enough that a thread slowed down by others ends
// at most about one chunk after the rest.  A chunk that reads one value
// for every cell (pvtnum=1) holds the least, so that the buffer of that
// value stays small.
const std::uint64_t cellsPerChunk = 1 << 16;
const std::uint64_t chunksPerThread = 8;
const std::uint64_t cellsWithoutLock = 1 << 13;

namespace {

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

// flatTablesKept for the life of this object, on this thread.
class KeptFlatTables
{
public:
    explicit KeptFlatTables(FlatTablesKeeper* keeper) : m_before(flatTablesKept) { flatTablesKept = keeper; }
    ~KeptFlatTables() { flatTablesKept = m_before; }
    KeptFlatTables(const KeptFlatTables&) = delete;
    KeptFlatTables& operator=(const KeptFlatTables&) = delete;

private:
    FlatTablesKeeper* m_before;
};

void RunChunk(CellJob& job, std::uint64_t begin, std::uint64_t end)
{
    GridFunctionPtr arguments[mostArguments];
    for (std::size_t a = 0; a < job.operands.size(); ++a)
        arguments[a] = SliceOf(job, job.operands[a], begin, end);
    // The tables never change: flattened once, for every chunk and call.
    const KeptFlatTables kept(job.tables ? &job.tables->Flattened() : nullptr);
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

} // namespace

PyObject* Calculate(PyObject* self, PyObject* const* args, Py_ssize_t nargs)
{
    return Entry<&PrepareCalculation>(self, args, nargs);
}

nb::dict CalculationList()
{
    nb::dict list;
    for (const Calculation& c : calculations)
        list[c.name] = nb::make_tuple(c.list ? nb::object(nb::str(c.list)) : nb::none(), c.inputs, c.floatInputs);
    return list;
}

} // namespace engine
} // namespace kavra
