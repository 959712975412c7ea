// kavra._parallel: the cell calculations of kavra._kavracore, run on a pool
// of threads without the interpreter lock.  Each name takes the arguments of
// the native name of the same name, then the number of threads.
//
// A call runs in parts only where no cell can fail: every grid function an
// array grid function of the result's size (int for the regions, double
// for the rest), every table complete (core/parallel/TableCopies.h), and no
// region number past the list.  Then the tables are copied under the lock,
// the lock is released, and each part runs the very native calculation over
// its slice of the buffers.  Any other call runs as the native call itself,
// on the calling thread with the lock held: its results, its failure and
// the cells it leaves written are the native call's.
#include <boost/python.hpp>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "bindings/common/BindingHelpers.h"
#include "core/parallel/CellParts.h"
#include "core/reductions/ColumnKernels.h"
#include "core/parallel/TableCopies.h"
#include "core/pvt/BubblePointPressure.h"
#include "core/pvt/OneOverB.h"
#include "core/pvt/OneOverBg.h"
#include "core/pvt/OneOverBo.h"
#include "core/pvt/OneOverBw.h"
#include "core/pvt/RsFromComponents.h"
#include "core/rock/BulkVolume.h"
#include "core/rock/Porosity.h"
#include "core/utils/ParallelFor.h"

namespace bp = boost::python;

namespace kavra {
namespace python {
namespace {

typedef std::vector<GridFunctionPtr> Arguments;

// Fewer cells than these per part cost more in handing out than they save
// (bench/README.md, "Threads": the crossover measured): a calculation over
// tables spends 3-20 ns on a cell, one without tables and a K reduction
// about 2 ns.
constexpr std::uint64_t cellsPerTablePart = 1 << 15;
constexpr std::uint64_t cellsPerPlainPart = 1 << 16;

unsigned Parts(std::uint64_t cells, int threads, std::uint64_t cellsPerPart)
{
    if (threads < 1)
        Raise(PyExc_ValueError, "the number of threads must be at least 1");
    const std::uint64_t most = cells / cellsPerPart;
    return static_cast<unsigned>(std::max<std::uint64_t>(1, std::min<std::uint64_t>(threads, most)));
}

// The interpreter lock is released for the life of this object.
class LockReleased
{
public:
    LockReleased() : m_state(PyEval_SaveThread()) {}
    ~LockReleased() { PyEval_RestoreThread(m_state); }
    LockReleased(const LockReleased&) = delete;
    LockReleased& operator=(const LockReleased&) = delete;

private:
    PyThreadState* m_state;
};

std::uint64_t ResultSize(const Arguments& arguments)
{
    return arguments.back() ? arguments.back()->number_of_elements() : 0;
}

// Whether every argument is an array grid function of n elements: of int
// for the first when it holds regions, of double for all others.
bool Sliceable(const Arguments& arguments, std::uint64_t n, bool regions)
{
    for (std::size_t a = 0; a < arguments.size(); ++a)
        if (!(regions && a == 0 ? IsArrayOf<int>(arguments[a], n) : IsArrayOf<double>(arguments[a], n)))
            return false;
    return true;
}

// Runs calc(slices) for each part, on the pool, with the lock released.
template <class Calc>
void RunParts(unsigned parts, const Arguments& arguments, Calc calc)
{
    ParallelFor(ResultSize(arguments), parts, [&](unsigned, std::uint64_t begin, std::uint64_t end) {
        Arguments slices;
        slices.reserve(arguments.size());
        for (const GridFunctionPtr& argument : arguments)
            slices.push_back(Slice(argument, begin, end));
        calc(slices);
    });
}

// A calculation over a region list: calc(list, arguments), the regions first.
template <class List, class Calc>
void WithTables(Calc calc, const List& list, const Arguments& arguments, int threads)
{
    const std::uint64_t n = ResultSize(arguments);
    const unsigned parts = Parts(n, threads, cellsPerTablePart);
    if (parts == 1 || !Sliceable(arguments, n, true) || !Complete(list))
        return calc(list, arguments);
    const List own = PrivateCopy(list);
    bool inRange = false;
    {
        LockReleased released;
        // Against the copy the parts run on: another thread may change `list` meanwhile.
        inRange = LargestRegion(arguments[0], parts) <= static_cast<std::int64_t>(own.size());
        if (inRange)
            RunParts(parts, arguments, [&](const Arguments& slices) { calc(own, slices); });
    }
    if (!inRange)
        calc(list, arguments);
}

// A calculation without tables: calc(arguments).
template <class Calc>
void Plain(Calc calc, const Arguments& arguments, int threads)
{
    const std::uint64_t n = ResultSize(arguments);
    const unsigned parts = Parts(n, threads, cellsPerPlainPart);
    if (parts == 1 || !Sliceable(arguments, n, false))
        return calc(arguments);
    LockReleased released;
    RunParts(parts, arguments, calc);
}

typedef GridFunctionPtr G;

void BubblePointPressure(const TPVTOList& list, G regions, G rs, G pbub, int threads)
{
    WithTables([](const TPVTOList& t, const Arguments& a) { CalcBubblePointPressure(t, a[0], a[1], a[2]); }, list,
               {regions, rs, pbub}, threads);
}

void OneOverB(const TPVTList& list, G regions, G p, G result, int threads)
{
    WithTables([](const TPVTList& t, const Arguments& a) { CalcOneOverB(t, a[0], a[1], a[2]); }, list,
               {regions, p, result}, threads);
}

void OneOverBo(const TPVTOList& list, G regions, G po, G pbub, G result, int threads)
{
    WithTables([](const TPVTOList& t, const Arguments& a) { CalcOneOverBo(t, a[0], a[1], a[2], a[3]); }, list,
               {regions, po, pbub, result}, threads);
}

void OneOverBw(const TPVTWList& list, G regions, G pw, G result, int threads)
{
    WithTables([](const TPVTWList& t, const Arguments& a) { CalcOneOverBw(t, a[0], a[1], a[2]); }, list,
               {regions, pw, result}, threads);
}

void OneOverBg(const TPVTGList& list, G regions, G pg, G pdew, G rv, G result, int threads)
{
    WithTables([](const TPVTGList& t, const Arguments& a) { CalcOneOverBg(t, a[0], a[1], a[2], a[3], a[4]); },
               list, {regions, pg, pdew, rv, result}, threads);
}

void Porosity(const TRockList& list, G regions, G po, G poro, G result, int threads)
{
    WithTables([](const TRockList& t, const Arguments& a) { CalcPorosity(t, a[0], a[1], a[2], a[3]); }, list,
               {regions, po, poro, result}, threads);
}

void PorosityFromPORV(G bulk, G porv, G result, int threads)
{
    Plain([](const Arguments& a) { CalcPorosityFromPORV(a[0], a[1], a[2]); }, {bulk, porv, result}, threads);
}

void BulkVolumeFromPorosity(G porv, G poro, G result, int threads)
{
    Plain([](const Arguments& a) { CalcBulkVolume(a[0], a[1], a[2]); }, {porv, poro, result}, threads);
}

void BulkVolumeTimesNTG(G ntg, G result, int threads)
{
    Plain([](const Arguments& a) { CalcBulkVolume(a[0], a[1]); }, {ntg, result}, threads);
}

void RsFromComponents(G denominator, G numerator, G rs, int threads)
{
    Plain([](const Arguments& a) { CalcRsFromComponents(a[0], a[1], a[2]); }, {denominator, numerator, rs},
          threads);
}

// A C-contiguous buffer of a Python object, released with this object.
class Buffer
{
public:
    Buffer(PyObject* source, bool writable)
    {
        if (PyObject_GetBuffer(source, &m_view, PyBUF_C_CONTIGUOUS | PyBUF_FORMAT | (writable ? PyBUF_WRITABLE : 0)) < 0)
            bp::throw_error_already_set();
    }
    ~Buffer() { PyBuffer_Release(&m_view); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    // The element's type character, native byte order and size alone ("d", "i", ...); 0 for any other.
    char Type() const
    {
        const char* format = m_view.format;
        if (format[0] == '@' || format[0] == '=')
            ++format;
        return format[0] != 0 && format[1] == 0 ? format[0] : 0;
    }
    std::int64_t Elements() const { return m_view.itemsize ? m_view.len / m_view.itemsize : 0; }
    char* Bytes() const { return static_cast<char*>(m_view.buf); }

private:
    Py_buffer m_view;
};

template <class Operation, class T>
void ReduceColumnsInParts(const Buffer& values, const Buffer& result, std::int64_t columns, int threads)
{
    const std::int64_t n = values.Elements();
    const unsigned parts = static_cast<unsigned>(std::min<std::int64_t>(Parts(n, threads, cellsPerPlainPart), columns));
    std::optional<LockReleased> released; // one part runs on the calling thread, the lock kept
    if (parts > 1)
        released.emplace();
    ParallelFor(columns, parts, [&](unsigned, std::uint64_t first, std::uint64_t last) {
        std::vector<T> accumulator(last - first, Operation::template Initial<T>());
        columns::ReduceGridColumns<Operation>(values.Bytes(), n, columns, accumulator.data(), result.Bytes(),
                                              std::ptrdiff_t(first), std::ptrdiff_t(last));
    });
}

template <class Operation>
void ReduceByType(char type, const Buffer& values, const Buffer& result, std::int64_t columns, int threads)
{
    if (!ForElementType(
            ArrayElements(), [type](const ElementTraits& e) { return e.character == type; },
            [&](auto zero) { ReduceColumnsInParts<Operation, decltype(zero)>(values, result, columns, threads); }))
        Raise(PyExc_ValueError, "values of an element type without a column kernel");
}

// The column reduction `name` (KMax, KMin, KSum or KAverage) of a grid's
// cells in cell order, values in and result out of the same length and
// element type, the columns in parts on threads: the native kernel over
// each part's columns.
void ReduceGrid(const std::string& name, bp::object values, bp::object result, std::int64_t columns, int threads)
{
    const Buffer in(values.ptr(), false);
    const Buffer out(result.ptr(), true);
    const char type = in.Type();
    if (type == 0 || out.Type() != type || in.Elements() != out.Elements() || columns < 1 ||
        in.Elements() % columns != 0)
        Raise(PyExc_ValueError, "ReduceGrid takes values and a result of one element type and length, "
                                "a whole number of layers of `columns` cells");
    if (name == columns::Max::name)
        return ReduceByType<columns::Max>(type, in, out, columns, threads);
    if (name == columns::Min::name)
        return ReduceByType<columns::Min>(type, in, out, columns, threads);
    if (name == columns::Sum::name)
        return ReduceByType<columns::Sum>(type, in, out, columns, threads);
    if (name == columns::Average::name)
        return ReduceByType<columns::Average>(type, in, out, columns, threads);
    Raise(PyExc_ValueError, "no column reduction " + name);
}

} // namespace
} // namespace python
} // namespace kavra

BOOST_PYTHON_MODULE(_parallel)
{
    using namespace kavra::python;
    bp::def("CalcBubblePointPressure", &BubblePointPressure);
    bp::def("CalcOneOverB", &OneOverB);
    bp::def("CalcOneOverBo", &OneOverBo);
    bp::def("CalcOneOverBw", &OneOverBw);
    bp::def("CalcOneOverBg", &OneOverBg);
    bp::def("CalcPorosity", &Porosity);
    bp::def("CalcPorosityFromPORV", &PorosityFromPORV);
    bp::def("CalcBulkVolume", &BulkVolumeTimesNTG);
    bp::def("CalcBulkVolume", &BulkVolumeFromPorosity);
    bp::def("CalcRsFromComponents", &RsFromComponents);
    bp::def("ReduceGrid", &ReduceGrid);
}
