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

#include "bindings/_engine/Held.h"
#include "core/grid/CellGeometry.h"
#include "core/utils/ParallelFor.h"

namespace nb = nanobind;

namespace kavra {
namespace engine {
namespace {

// A contiguous float64 array of `length` numbers in the machine's byte
// order (writable where asked), held for the call; ValueError otherwise.
std::unique_ptr<HeldArray> Float64s(nb::handle array, std::uint64_t length, bool writable, const char* what)
{
    PyArrayObject* a = reinterpret_cast<PyArrayObject*>(array.ptr());
    bool fits = IsArray(array.ptr());
    if (fits) {
        std::uint64_t count = 1;
        for (int d = 0; d < PyArray_NDIM(a); ++d)
            count *= static_cast<std::uint64_t>(PyArray_DIMS(a)[d]);
        const PyArray_Descr* type = PyArray_DESCR(a);
        fits = count == length && type->type_num == NPY_DOUBLE && type->byteorder != '>' &&
               PyArray_CHKFLAGS(a, NPY_ARRAY_C_CONTIGUOUS | NPY_ARRAY_ALIGNED) &&
               (!writable || PyArray_CHKFLAGS(a, NPY_ARRAY_WRITEABLE));
    }
    if (!fits)
        throw nb::value_error((std::string("cell_geometry: ") + what + " must be a contiguous " +
                               (writable ? "writable " : "") + "float64 array of " + std::to_string(length) +
                               " numbers")
                                  .c_str());
    return std::unique_ptr<HeldArray>(new HeldArray(array.ptr()));
}

// cell_geometry(nI, nJ, nK, coord, zcorn, out, threads): fills the arrays
// of out = (volumes, depths, dx, dy, dz), each float64 of one number per
// cell or None, from COORD and ZCORN.
void CellGeometry(std::uint64_t nI, std::uint64_t nJ, std::uint64_t nK, nb::handle coord, nb::handle zcorn,
                  nb::tuple out, unsigned threads)
{
    std::uint64_t pillars = 0, cells = 0, depthsCount = 0, coordCount = 0;
    if (__builtin_mul_overflow(nI + 1, nJ + 1, &pillars) || __builtin_mul_overflow(pillars, 6, &coordCount) ||
        __builtin_mul_overflow(nI * nJ, nK, &cells) || (nJ != 0 && nI * nJ / nJ != nI) ||
        __builtin_mul_overflow(cells, 8, &depthsCount))
        throw nb::value_error("cell_geometry: a grid too large to address");
    if (nb::len(out) != 5)
        throw nb::value_error("cell_geometry: out is (volumes, depths, dx, dy, dz)");
    auto c = Float64s(coord, coordCount, false, "coord");
    auto z = Float64s(zcorn, depthsCount, false, "zcorn");
    static const char* const names[5] = {"volumes", "depths", "dx", "dy", "dz"};
    std::unique_ptr<HeldArray> held[5];
    double* into[5] = {};
    for (int a = 0; a < 5; ++a)
        if (!out[a].is_none()) {
            held[a] = Float64s(out[a], cells, true, names[a]);
            into[a] = reinterpret_cast<double*>(held[a]->Data());
        }
    const grid::CornerPointGrid g{nI, nJ, nK, reinterpret_cast<const double*>(c->Data()),
                                  reinterpret_cast<const double*>(z->Data())};
    const grid::CellGeometryOut wanted{into[0], into[1], into[2], into[3], into[4]};
    const unsigned useful = UsefulThreads(threads < 1 ? 1 : threads);
    std::exception_ptr failure; // no memory for the pillars, or no thread to be had
    auto work = [&]() noexcept {
        try {
            grid::CellGeometry(g, wanted, useful);
        } catch (...) {
            failure = std::current_exception();
        }
    };
    WithoutLock(work);
    if (failure)
        std::rethrow_exception(failure); // nanobind raises it as MemoryError or RuntimeError
}

} // namespace

void RegisterGeometry(nb::module_& m)
{
    m.def("cell_geometry", &CellGeometry, nb::arg("nI"), nb::arg("nJ"), nb::arg("nK"), nb::arg("coord"),
          nb::arg("zcorn"), nb::arg("out"), nb::arg("threads"),
          "cell_geometry(nI, nJ, nK, coord, zcorn, out, threads) -> None: the volume, the mean corner depth, "
          "DX, DY and DZ of every cell of a corner-point grid into out = (volumes, depths, dx, dy, dz) (None "
          "for one not wanted), in the units of COORD and ZCORN");
}

} // namespace engine
} // namespace kavra
