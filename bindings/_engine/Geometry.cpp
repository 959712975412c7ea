// cell_geometry: the volumes, centre depths and DX, DY, DZ of a
// corner-point grid's cells (core/grid/CellGeometry.h), on the pool's
// threads with the interpreter lock released.
#include "bindings/_engine/Geometry.h"

#include <Python.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include <numpy/ndarraytypes.h> // the array struct only: no NumPy function table is used

#include "bindings/_engine/Calls.h"
#include "bindings/_engine/Engine.h"
#include "bindings/_engine/Held.h"
#include "core/grid/CellGeometry.h"
#include "core/utils/ParallelFor.h"

namespace nb = nanobind;

namespace kavra {
namespace engine {
namespace {

// A contiguous float64 array of `length` numbers in the machine's byte
// order (writable where asked), held for the call; ValueError otherwise.
std::unique_ptr<HeldArray> Float64s(PyObject* array, std::uint64_t length, bool writable, const char* what)
{
    const bool fits = IsArray(array) && Length(array) == length && Kind(array) == NPY_DOUBLE && Contiguous(array) &&
                      (!writable || PyArray_CHKFLAGS(reinterpret_cast<PyArrayObject*>(array), NPY_ARRAY_WRITEABLE));
    if (!fits)
        Refuse(PyExc_ValueError, std::string("cell_geometry: ") + what + " must be a contiguous " +
                                     (writable ? "writable " : "") + "float64 array of " + std::to_string(length) +
                                     " numbers");
    return std::unique_ptr<HeldArray>(new HeldArray(array));
}

struct GeometryJob : Job
{
    void Run() noexcept override
    {
        try {
            grid::CellGeometry(grid, wanted, threads);
        } catch (...) {
            error = std::current_exception(); // no memory for the pillars, or no thread to be had
        }
    }
    PyObject* Result() override { Py_RETURN_NONE; }

    std::unique_ptr<HeldArray> coord, zcorn, out[5];
    grid::CornerPointGrid grid{};
    grid::CellGeometryOut wanted;
    unsigned threads = 1;
};

// cell_geometry(nI, nJ, nK, coord, zcorn, out, threads): fills the arrays
// of out = (volumes, depths, dx, dy, dz), each float64 of one number per
// cell or None, from COORD and ZCORN.
Job* PrepareCellGeometry(PyObject* const* args, Py_ssize_t nargs)
{
    CheckArguments(nargs, 7, "cell_geometry");
    const std::uint64_t nI = nb::cast<std::uint64_t>(nb::handle(args[0]));
    const std::uint64_t nJ = nb::cast<std::uint64_t>(nb::handle(args[1]));
    const std::uint64_t nK = nb::cast<std::uint64_t>(nb::handle(args[2]));
    const unsigned threads = nb::cast<unsigned>(nb::handle(args[6]));
    std::uint64_t pillars = 0, cells = 0, depthsCount = 0, coordCount = 0;
    if (__builtin_mul_overflow(nI + 1, nJ + 1, &pillars) || __builtin_mul_overflow(pillars, 6, &coordCount) ||
        __builtin_mul_overflow(nI * nJ, nK, &cells) || (nJ != 0 && nI * nJ / nJ != nI) ||
        __builtin_mul_overflow(cells, 8, &depthsCount))
        Refuse(PyExc_ValueError, "cell_geometry: a grid too large to address");
    if (!PyTuple_Check(args[5]) || PyTuple_GET_SIZE(args[5]) != 5)
        Refuse(PyExc_ValueError, "cell_geometry: out is (volumes, depths, dx, dy, dz)");
    auto job = std::make_unique<GeometryJob>();
    job->words = Words{"cell_geometry", "", {}};
    job->coord = Float64s(args[3], coordCount, false, "coord");
    job->zcorn = Float64s(args[4], depthsCount, false, "zcorn");
    static const char* const names[5] = {"volumes", "depths", "dx", "dy", "dz"};
    double* into[5] = {};
    for (int a = 0; a < 5; ++a) {
        PyObject* array = PyTuple_GET_ITEM(args[5], a);
        if (array != Py_None) {
            job->out[a] = Float64s(array, cells, true, names[a]);
            into[a] = reinterpret_cast<double*>(job->out[a]->Data());
        }
    }
    job->grid = grid::CornerPointGrid{nI, nJ, nK, reinterpret_cast<const double*>(job->coord->Data()),
                                      reinterpret_cast<const double*>(job->zcorn->Data())};
    job->wanted = grid::CellGeometryOut{into[0], into[1], into[2], into[3], into[4]};
    job->threads = UsefulThreads(threads < 1 ? 1 : threads);
    job->unlocked = cells >= cellsWithoutLock;
    return job.release();
}

PyObject* CellGeometry(PyObject* self, PyObject* const* args, Py_ssize_t nargs)
{
    return Entry<&PrepareCellGeometry>(self, args, nargs);
}

} // namespace

void RegisterGeometry(nb::module_& m)
{
    static PyMethodDef methods[] = {
        {"cell_geometry", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&CellGeometry)), METH_FASTCALL,
         "cell_geometry($module, nI, nJ, nK, coord, zcorn, out, threads, /)\n--\n\n"
         "The volume, the mean corner depth, DX, DY and DZ of every cell of a corner-point grid into out = "
         "(volumes, depths, dx, dy, dz) (None for one not wanted), in the units of COORD and ZCORN. Gives None."},
        {nullptr, nullptr, 0, nullptr}};
    if (PyModule_AddFunctions(m.ptr(), methods) < 0)
        throw nb::python_error();
}

} // namespace engine
} // namespace kavra
