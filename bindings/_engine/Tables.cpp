#include "bindings/_engine/Tables.h"

#include <algorithm>
#include <stdexcept>

#include <boost/make_shared.hpp>
#include <nanobind/ndarray.h>

namespace nb = nanobind;

namespace kavra {
namespace engine {

template <>
const char* ListName<TPVTList>() { return "TPVTList"; }
template <>
const char* ListName<TPVTOList>() { return "TPVTOList"; }
template <>
const char* ListName<TPVTWList>() { return "TPVTWList"; }
template <>
const char* ListName<TPVTGList>() { return "TPVTGList"; }
template <>
const char* ListName<TRockList>() { return "TRockList"; }

namespace {

typedef nb::ndarray<const double, nb::ndim<1>, nb::c_contig, nb::device::cpu> Numbers;
typedef nb::ndarray<const double, nb::ndim<2>, nb::c_contig, nb::device::cpu> Rows;

[[noreturn]] void Refuse(const std::string& what) { throw nb::value_error(what.c_str()); }

TScalarPtr Scalar(double value) { return boost::make_shared<TScalar>(value, std::string(), std::string()); }

// A record of the fields of R from numbers[0 .. size).
template <class R>
R Record(const double* numbers)
{
    R record;
    for (std::size_t f = 0; f < RecordFields<R>::size; ++f)
        record.*RecordFields<R>::members[f] = Scalar(numbers[f]);
    return record;
}

template <class Array>
Array Cast(nb::handle h, const std::string& where)
{
    Array array;
    if (!nb::try_cast(h, array, false))
        Refuse(where + ": expected a contiguous float64 array of the table's form");
    return array;
}

// A dead-fluid region: an (n, 3) array of [P, B, Mi] rows.
TPVTTable DeadRegion(nb::handle region, const std::string& where)
{
    const Rows rows = Cast<Rows>(region, where);
    if (rows.shape(1) != RecordFields<TPVT>::size)
        Refuse(where + ": expected rows of 3 numbers");
    TPVTTable table;
    for (std::size_t r = 0; r < rows.shape(0); ++r)
        table.push_back(Record<TPVT>(rows.data() + r * rows.shape(1)));
    return table;
}

// One record per region: an array of the record's numbers.
template <class R>
R RecordRegion(nb::handle region, const std::string& where)
{
    const Numbers numbers = Cast<Numbers>(region, where);
    if (numbers.shape(0) != RecordFields<R>::size)
        Refuse(where + ": expected " + std::to_string(RecordFields<R>::size) + " numbers");
    return Record<R>(numbers.data());
}

// A two-level region: records [key, a, b, mu, a, b, mu, ...], the first
// triple the saturated point.
template <class Row, class Nested>
std::vector<Row> TwoLevelRegion(nb::handle region, const std::string& where)
{
    std::vector<Row> table;
    for (nb::handle item : nb::borrow<nb::sequence>(region)) {
        const Numbers numbers = Cast<Numbers>(item, where);
        const std::size_t n = numbers.shape(0);
        if (n < 1 + RecordFields<Nested>::size || (n - 1) % RecordFields<Nested>::size != 0)
            Refuse(where + ": expected records of 1 + 3*n numbers");
        Row row;
        row.*RecordFields<Row>::members[0] = Scalar(numbers.data()[0]);
        row.under_sat.clear();
        for (std::size_t at = 1; at < n; at += RecordFields<Nested>::size)
            row.under_sat.push_back(Record<Nested>(numbers.data() + at));
        table.push_back(std::move(row));
    }
    return table;
}

template <class List, class Build>
List BuildList(nb::handle regions, std::vector<bool>& empty, Build build)
{
    List list;
    std::size_t number = 1;
    for (nb::handle region : nb::borrow<nb::sequence>(regions)) {
        list.push_back(build(region, ListName<List>() + std::string(" region ") + std::to_string(number++)));
        if constexpr (std::is_same<typename List::value_type, TPVTW>::value ||
                      std::is_same<typename List::value_type, TRock>::value)
            empty.push_back(false);
        else
            empty.push_back(list.back().empty());
    }
    return list;
}

} // namespace

Tables::Tables(const std::string& listName, nb::handle regions) : m_name(listName)
{
    if (!nb::isinstance<nb::sequence>(regions))
        Refuse("the regions of a table must be a sequence");
    if (listName == ListName<TPVTList>())
        m_list = BuildList<TPVTList>(regions, m_empty, DeadRegion);
    else if (listName == ListName<TPVTOList>())
        m_list = BuildList<TPVTOList>(regions, m_empty, TwoLevelRegion<TPVTO, TPVT>);
    else if (listName == ListName<TPVTGList>())
        m_list = BuildList<TPVTGList>(regions, m_empty, TwoLevelRegion<TPVTG, TPVTGRecord>);
    else if (listName == ListName<TPVTWList>())
        m_list = BuildList<TPVTWList>(regions, m_empty, RecordRegion<TPVTW>);
    else if (listName == ListName<TRockList>())
        m_list = BuildList<TRockList>(regions, m_empty, RecordRegion<TRock>);
    else
        Refuse("no region list " + listName);
}

bool Tables::AnyEmpty() const
{
    return std::find(m_empty.begin(), m_empty.end(), true) != m_empty.end();
}

namespace {

template <class... R>
nb::tuple Names()
{
    nb::list names;
    (
        [&] {
            for (const char* name : RecordFields<R>::names)
                names.append(name);
        }(),
        ...);
    return nb::tuple(names);
}

} // namespace

nb::dict RecordFieldNames()
{
    nb::dict fields;
    fields[ListName<TPVTList>()] = Names<TPVT>();
    fields[ListName<TPVTOList>()] = Names<TPVTO, TPVT>();
    fields[ListName<TPVTGList>()] = Names<TPVTG, TPVTGRecord>();
    fields[ListName<TPVTWList>()] = Names<TPVTW>();
    fields[ListName<TRockList>()] = Names<TRock>();
    return fields;
}

} // namespace engine
} // namespace kavra
