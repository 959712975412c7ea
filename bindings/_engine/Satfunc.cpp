// kavra._engine's saturation functions (core/satfunc): the regions' curves
// built once (SatfuncTables), and relative permeability, capillary pressure
// and the cells' end points over NumPy buffers, run without the interpreter
// lock on the pool of threads.
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include "core/satfunc/SatFunc.h"
#include "core/utils/ParallelFor.h"

namespace nb = nanobind;

namespace kavra {
namespace engine {
namespace {

using satfunc::END_POINTS;
using satfunc::Functions;
static_assert(END_POINTS == 17, "the messages count the end points");

template <class T>
using In = nb::ndarray<const T, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
using Out = nb::ndarray<double, nb::ndim<1>, nb::c_contig, nb::device::cpu>;

// `a` as an array of T (without conversion), else a TypeError naming `what`.
template <class Array>
Array ArrayOf(nb::handle a, const std::string& what)
{
    try {
        return nb::cast<Array>(a, false);
    } catch (const nb::cast_error&) {
        throw nb::type_error((what + ": expected a contiguous 1-D float64 NumPy array").c_str());
    }
}

satfunc::Curve CurveOf(nb::handle pair, const char* name, std::size_t region)
{
    const std::string where = std::string(name) + " of region " + std::to_string(region + 1);
    if (nb::len(pair) != 2)
        throw nb::value_error((where + ": expected (saturations, values)").c_str());
    auto x = ArrayOf<In<double>>(pair[0], where);
    auto y = ArrayOf<In<double>>(pair[1], where);
    if (x.shape(0) == 0 || x.shape(0) != y.shape(0))
        throw nb::value_error((where + ": the saturations and values should be as many, at least one").c_str());
    satfunc::Curve c;
    c.x.assign(x.data(), x.data() + x.shape(0));
    c.y.assign(y.data(), y.data() + y.shape(0));
    for (std::size_t i = 0; i < c.x.size(); ++i) {
        if (!(c.x[i] == c.x[i]) || !(c.y[i] == c.y[i]))
            throw nb::value_error((where + ": a value is NaN").c_str());
        if (i > 0 && !(c.x[i] > c.x[i - 1]))
            throw nb::value_error((where + ": the saturations should increase").c_str());
    }
    return c;
}

// regions: a sequence of 6-tuples of (saturations, values) pairs: krw, krow,
// pcow against Sw, krg, krog, pcog against Sg.  model: 0 default, 1 STONE1,
// 2 STONE2.
Functions* MakeFunctions(nb::sequence regions, int model)
{
    static const char* names[6] = {"krw", "krow", "pcow", "krg", "krog", "pcog"};
    if (model < 0 || model > 2)
        throw nb::value_error("model should be 0 (default), 1 (STONE1) or 2 (STONE2)");
    auto* f = new Functions();
    try {
        const std::size_t count = nb::len(regions);
        for (std::size_t r = 0; r < count; ++r) {
            nb::handle curves = regions[r];
            if (nb::len(curves) != 6)
                throw nb::value_error("each region should hold six curves");
            satfunc::Region region;
            satfunc::Curve* slots[6] = {&region.krw, &region.krow, &region.pcow,
                                        &region.krg, &region.krog, &region.pcog};
            for (int c = 0; c < 6; ++c)
                *slots[c] = CurveOf(curves[c], names[c], r);
            region.FindEndPoints();
            f->regions.push_back(std::move(region));
        }
        f->model = static_cast<satfunc::OilModel>(model);
    } catch (...) {
        delete f;
        throw;
    }
    return f;
}

nb::object RegionEnds(const Functions& f)
{
    auto* values = new std::vector<double>();
    for (const auto& r : f.regions)
        values->insert(values->end(), r.ends, r.ends + END_POINTS);
    nb::capsule owner(values, [](void* p) noexcept { delete static_cast<std::vector<double>*>(p); });
    return nb::cast(nb::ndarray<nb::numpy, double, nb::ndim<2>>(values->data(), {f.regions.size(),
                                                                  static_cast<std::size_t>(END_POINTS)}, owner));
}

// The cells' own end points: a sequence of END_POINTS arrays (float64, n
// each) or None.
satfunc::Scaling ScalingOf(nb::sequence cells, bool horizontal, bool threePoint, std::size_t n,
                           std::vector<In<double>>& held)
{
    if (nb::len(cells) != END_POINTS)
        throw nb::value_error("the cells' end points should be 17 arrays or None");
    satfunc::Scaling s;
    s.horizontal = horizontal;
    s.threePoint = threePoint;
    for (int i = 0; i < END_POINTS; ++i) {
        nb::handle a = cells[i];
        if (a.is_none())
            continue;
        held.push_back(ArrayOf<In<double>>(a, "end point " + std::to_string(i)));
        if (held.back().shape(0) != n)
            throw nb::value_error("every end-point array should have one value per cell");
        s.cell[i] = held.back().data();
    }
    return s;
}

// Runs `body` without the interpreter lock; a cell of a region the tables do
// not have is a ValueError.
template <class Body>
void Unlocked(const Body& body)
{
    std::string failure;
    {
        nb::gil_scoped_release unlocked;
        try {
            body();
        } catch (const std::out_of_range& e) {
            failure = e.what();
        }
    }
    if (!failure.empty())
        throw nb::value_error(("satnum: " + failure).c_str());
}

void CheckOut(const Out& a, std::size_t n)
{
    if (a.shape(0) != n)
        throw nb::value_error("every output should have one value per cell");
}

template <class T>
void RelPerm(const Functions& f, In<int> satnum, In<T> sw, In<T> sg, nb::sequence cells, bool horizontal,
             bool threePoint, Out krw, Out kro, Out krg, unsigned threads)
{
    const std::size_t n = satnum.shape(0);
    if (sw.shape(0) != n || sg.shape(0) != n)
        throw nb::value_error("satnum, sw and sg should have the same length");
    CheckOut(krw, n), CheckOut(kro, n), CheckOut(krg, n);
    std::vector<In<double>> held;
    const satfunc::Scaling s = ScalingOf(cells, horizontal, threePoint, n, held);
    Unlocked([&] {
        satfunc::RelPerm(f, s, satnum.data(), sw.data(), sg.data(), n, krw.data(), kro.data(), krg.data(),
                         UsefulThreads(threads));
    });
}

template <class T>
void CapillaryPressure(const Functions& f, In<int> satnum, In<T> sw, In<T> sg, nb::sequence cells, bool horizontal,
                       bool threePoint, Out pcow, Out pcog, unsigned threads)
{
    const std::size_t n = satnum.shape(0);
    if (sw.shape(0) != n || sg.shape(0) != n)
        throw nb::value_error("satnum, sw and sg should have the same length");
    CheckOut(pcow, n), CheckOut(pcog, n);
    std::vector<In<double>> held;
    const satfunc::Scaling s = ScalingOf(cells, horizontal, threePoint, n, held);
    Unlocked([&] {
        satfunc::CapillaryPressure(f, s, satnum.data(), sw.data(), sg.data(), n, pcow.data(), pcog.data(),
                                   UsefulThreads(threads));
    });
}

void EndPoints(const Functions& f, In<int> satnum, nb::sequence cells, nb::sequence out)
{
    const std::size_t n = satnum.shape(0);
    std::vector<In<double>> held;
    const satfunc::Scaling s = ScalingOf(cells, false, false, n, held);
    if (nb::len(out) != END_POINTS)
        throw nb::value_error("the outputs should be 17 arrays");
    std::vector<Out> outs;
    double* pointers[END_POINTS];
    outs.reserve(END_POINTS);
    for (int i = 0; i < END_POINTS; ++i) {
        outs.push_back(ArrayOf<Out>(out[i], "output " + std::to_string(i)));
        CheckOut(outs.back(), n);
        pointers[i] = outs.back().data();
    }
    Unlocked([&] { satfunc::CellEndPoints(f, s, satnum.data(), n, pointers); });
}

} // namespace

void RegisterSatfunc(nb::module_& m)
{
    nb::class_<Functions>(m, "SatfuncTables", "The saturation curves of every SATNUM region, built once")
        .def("__init__", [](Functions* self, nb::sequence regions, int model) {
            Functions* made = MakeFunctions(regions, model);
            new (self) Functions(std::move(*made));
            delete made;
        }, nb::arg("regions"), nb::arg("model"))
        .def("__len__", [](const Functions& f) { return f.regions.size(); })
        .def_prop_ro("model", [](const Functions& f) { return static_cast<int>(f.model); })
        .def_prop_ro("ends", &RegionEnds);
    const auto a = [](const char* name) { return nb::arg(name).noconvert(); };
    m.def("satfunc_relperm", &RelPerm<double>, nb::arg("tables"), a("satnum"), a("sw"), a("sg"), nb::arg("cells"),
          nb::arg("horizontal"), nb::arg("three_point"), a("krw"), a("kro"), a("krg"), nb::arg("threads"));
    m.def("satfunc_relperm", &RelPerm<float>, nb::arg("tables"), a("satnum"), a("sw"), a("sg"), nb::arg("cells"),
          nb::arg("horizontal"), nb::arg("three_point"), a("krw"), a("kro"), a("krg"), nb::arg("threads"));
    m.def("satfunc_capillary_pressure", &CapillaryPressure<double>, nb::arg("tables"), a("satnum"), a("sw"),
          a("sg"), nb::arg("cells"), nb::arg("horizontal"), nb::arg("three_point"), a("pcow"), a("pcog"),
          nb::arg("threads"));
    m.def("satfunc_capillary_pressure", &CapillaryPressure<float>, nb::arg("tables"), a("satnum"), a("sw"),
          a("sg"), nb::arg("cells"), nb::arg("horizontal"), nb::arg("three_point"), a("pcow"), a("pcog"),
          nb::arg("threads"));
    m.def("satfunc_end_points", &EndPoints, nb::arg("tables"), a("satnum"), nb::arg("cells"), nb::arg("out"));
    m.attr("SATFUNC_END_POINTS") = nb::make_tuple("SWL", "SWCR", "SWU", "SGL", "SGCR", "SGU", "SOWCR", "SOGCR",
                                                  "KRW", "KRWR", "KRO", "KRORW", "KRORG", "KRG", "KRGR", "PCW", "PCG");
}

} // namespace engine
} // namespace kavra
