#pragma once

// What the black-oil calculations share: a line of values in one variable
// (linear between its nodes, extended linearly past both ends), and the cell
// walk over a region model built once per call from the region's table.
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <utility>
#include <vector>

#include "core/types/Records.h"
#include "core/utils/ElementTypes.h"
#include "core/utils/Failure.h"
#include "core/utils/GridFunctionAccess.h"
#include "core/utils/gridfunction_checking.h"

namespace kavra {
namespace blackoil {

// The segment [i, i + 1] of nodes x[0] < x[1] < ... (at least two) that
// serves `at`: the first for `at` below x[1], the last for `at` at or above
// x[n - 2], else the one with x[i] <= at < x[i + 1] (bisection).
inline std::size_t SegmentOf(const std::vector<double>& x, double at)
{
    std::size_t lo = 0, hi = x.size() - 1;
    while (hi - lo > 1) {
        const std::size_t mid = (lo + hi) / 2;
        (at >= x[mid] ? lo : hi) = mid;
    }
    return lo;
}

// Nodes x[0] < x[1] < ... with values; one node gives its value everywhere.
struct Line
{
    std::vector<double> x, y;

    std::size_t Size() const { return x.size(); }
    std::size_t Segment(double at) const { return SegmentOf(x, at); }
    double At(double at) const
    {
        if (x.size() == 1)
            return y[0];
        const std::size_t i = Segment(at);
        return y[i] + (at - x[i]) * ((y[i + 1] - y[i]) / (x[i + 1] - x[i]));
    }
};

// 1/B and 1/(B mu) together.
struct Values
{
    double b, bmu;
};

// Nodes x with the two values of each: one search serves both.  `both`
// false reads 1/B alone (bmu is left 0).
struct Curve
{
    Line b;                  // the nodes, and 1/B at them
    std::vector<double> bmu; // 1/(B mu) at the nodes

    std::size_t Size() const { return b.Size(); }
    template <bool both>
    Values At(double at) const
    {
        const std::vector<double>& x = b.x;
        if (x.size() == 1)
            return Values{b.y[0], both ? bmu[0] : 0.0};
        const std::size_t i = b.Segment(at);
        const double t = at - x[i], dx = x[i + 1] - x[i];
        const double vb = b.y[i] + t * ((b.y[i + 1] - b.y[i]) / dx);
        return Values{vb, both ? bmu[i] + t * ((bmu[i + 1] - bmu[i]) / dx) : 0.0};
    }
    void Add(double x, double vb, double vbmu)
    {
        b.x.push_back(x);
        b.y.push_back(vb);
        bmu.push_back(vbmu);
    }
};

// The position of `at` among keys[0] < keys[1] < ...: the segment i and the
// weight w of keys[i + 1] (below 0 or above 1 outside the keys); one key
// gives segment 0 with weight 0.
struct Bracket
{
    std::size_t i;
    double w;
};

inline Bracket BracketOf(const std::vector<double>& keys, double at)
{
    if (keys.size() < 2)
        return Bracket{0, 0.0};
    const std::size_t i = SegmentOf(keys, at);
    return Bracket{i, (at - keys[i]) / (keys[i + 1] - keys[i])};
}

// 1/B and 1/(B mu) of a row with a B and a viscosity (TPVT, TPVTGRecord).
template <class Row>
double Reciprocal(const Row& row)
{
    return 1.0 / ScalarValue(row.B);
}
template <class Row>
double ReciprocalBMu(const Row& row)
{
    return 1.0 / (ScalarValue(row.B) * ScalarValue(row.Mi));
}

// The first record after record r of a two-level table with undersaturated
// rows (two or more), or table.size() when none has them.
template <class Table>
std::size_t NextWithRows(const Table& table, std::size_t r)
{
    std::size_t j = r + 1;
    while (j < table.size() && table[j].under_sat.size() < 2)
        ++j;
    return j;
}

// The region models of a list, one per region: Model(table) each.
template <class Model, class List>
std::vector<Model> Models(const List& list)
{
    std::vector<Model> models;
    models.reserve(list.size());
    for (const auto& table : list)
        models.emplace_back(table);
    return models;
}

namespace detail {

template <class Rule, class Model, class Accesses, std::size_t... I>
double CellValue(const Rule& rule, const Model& model, const Accesses& accesses, std::uint64_t h,
                 std::index_sequence<I...>)
{
    return rule(model, static_cast<double>(std::get<I>(accesses).get(h))...);
}

} // namespace detail

// Walks the cells of a calculation: a cell of region below 1 gets 0.0, any
// other region must be in `models` and have rows (else the failure names
// that cell, the cells before it written), and the cell gets
// rule(model, inputs...).  The last grid function is the result.
template <class Model, class... T, class Rule, class... GridFunctions>
void CalculateCells(ElementTypes<T...> types, const std::vector<Model>& models, const Rule& rule,
                    const GridFunctionPtr& regions, const GridFunctions&... gridFunctions)
{
    CheckGridFunctionGiven("PVTNum", regions);
    (CheckGridFunctionGiven("argument", gridFunctions), ...);
    const GridFunctionPtr all[] = {gridFunctions...};
    const std::uint64_t n = all[sizeof...(GridFunctions) - 1]->number_of_elements();
    PRECONDITION(n == regions->number_of_elements(), "The result and PVTNum should have the same number of elements.");
    for (const GridFunctionPtr& g : all)
        PRECONDITION(n == g->number_of_elements(), "The result and every input should have the same number of elements.");
    DispatchGridFunctions(
        types,
        [&](auto regionNumbers, auto... access) {
            const auto accesses = std::make_tuple(access...);
            constexpr std::size_t inputs = sizeof...(access) - 1;
            const auto& result = std::get<inputs>(accesses);
            for (std::uint64_t h = 0; h < n; ++h) {
                const int region = regionNumbers.get(h);
                if (region < 1) {
                    result.set(h, 0.0);
                    continue;
                }
                const std::uint64_t pvtID = static_cast<std::uint64_t>(region) - 1;
                try {
                    PRECONDITION(pvtID < models.size(), (WrongRegion{pvtID, models.size()}));
                    PRECONDITION(!models[pvtID].Empty(), (EmptyTable{"Empty PVT table!!", pvtID}));
                } catch (IHeaderException& failure) {
                    failure.failure.cell = static_cast<std::int64_t>(h);
                    throw;
                }
                result.set(h, detail::CellValue(rule, models[pvtID], accesses, h, std::make_index_sequence<inputs>()));
            }
        },
        RegionNumbers{regions}, gridFunctions...);
}

} // namespace blackoil
} // namespace kavra

// A calculation's two entries: its own variant (float64 arrays, or any grid
// functions through their accessors) and the engine's (float32 inputs too).
// The names after `rule` are its grid functions, the result last: at most
// three (two inputs and the result), which KAVRA_BLACKOIL_PARAMETERS spells
// out; a calculation with more is written out by hand (CalcDensityFromB).
#define KAVRA_BLACKOIL_ENTRIES(Name, List, Model, rule, ...)                                                  \
    static_assert(KAVRA_BLACKOIL_COUNT(__VA_ARGS__) <= 3,                                                     \
                  "KAVRA_BLACKOIL_ENTRIES(" #Name ", ...) names " KAVRA_BLACKOIL_STRING(                     \
                      KAVRA_BLACKOIL_COUNT(__VA_ARGS__)) " grid functions: it takes at most three, two inputs " \
                                                         "and the result");                                   \
    void Name(const List& list, GridFunctionPtr regions, KAVRA_BLACKOIL_PARAMETERS(__VA_ARGS__))              \
    {                                                                                                        \
        blackoil::CalculateCells(ElementTypes<double>(), blackoil::Models<Model>(list), rule, regions,        \
                                 __VA_ARGS__);                                                               \
    }                                                                                                        \
    void Name(EngineVariants, const List& list, GridFunctionPtr regions, KAVRA_BLACKOIL_PARAMETERS(__VA_ARGS__)) \
    {                                                                                                        \
        blackoil::CalculateCells(EngineVariants::Types(), blackoil::Models<Model>(list), rule, regions,       \
                                 __VA_ARGS__);                                                               \
    }
#define KAVRA_BLACKOIL_P1(a) GridFunctionPtr a
#define KAVRA_BLACKOIL_PARAMETERS_2(a, b) GridFunctionPtr a, GridFunctionPtr b
#define KAVRA_BLACKOIL_PARAMETERS_3(a, b, c) GridFunctionPtr a, GridFunctionPtr b, GridFunctionPtr c
// More than three: the static_assert above says so; these stand in for the parameters.
#define KAVRA_BLACKOIL_TOO_MANY(...) GridFunctionPtr
#define KAVRA_BLACKOIL_PICK(_1, _2, _3, _4, _5, _6, _7, _8, name, ...) name
#define KAVRA_BLACKOIL_PARAMETERS(...)                                                                         \
    KAVRA_BLACKOIL_PICK(__VA_ARGS__, KAVRA_BLACKOIL_TOO_MANY, KAVRA_BLACKOIL_TOO_MANY, KAVRA_BLACKOIL_TOO_MANY,  \
                        KAVRA_BLACKOIL_TOO_MANY, KAVRA_BLACKOIL_TOO_MANY, KAVRA_BLACKOIL_PARAMETERS_3,         \
                        KAVRA_BLACKOIL_PARAMETERS_2, KAVRA_BLACKOIL_P1)(__VA_ARGS__)
#define KAVRA_BLACKOIL_COUNT(...) KAVRA_BLACKOIL_PICK(__VA_ARGS__, 8, 7, 6, 5, 4, 3, 2, 1)
#define KAVRA_BLACKOIL_STRING(x) KAVRA_BLACKOIL_STRING_(x)
#define KAVRA_BLACKOIL_STRING_(x) #x
