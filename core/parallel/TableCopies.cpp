#include "core/parallel/TableCopies.h"

#include <algorithm>

#include <boost/make_shared.hpp>

namespace kavra {
namespace {

bool Set(const TScalarPtr& s) { return s.get() != nullptr; }

template <class E>
bool Every(const std::vector<E>& elements);

// A table needs rows; a record needs the numbers a calculation reads.
template <class E>
bool Complete(const std::vector<E>& table) { return !table.empty() && Every(table); }
bool Complete(const TPVT& r) { return Set(r.P) && Set(r.B); }
bool Complete(const TPVTGRecord& r) { return Set(r.Rv) && Set(r.B); }
bool Complete(const TPVTW& r) { return Set(r.P_ref) && Set(r.Bw_ref) && Set(r.Cw); }
bool Complete(const TRock& r) { return Set(r.P_ref) && Set(r.Cr); }
bool Complete(const TPVTO& r) { return Set(r.Rs) && Complete(r.under_sat); }
bool Complete(const TPVTG& r) { return Set(r.Pg) && Complete(r.under_sat); }

template <class E>
bool Every(const std::vector<E>& elements)
{
    return std::all_of(elements.begin(), elements.end(), [](const E& e) { return Complete(e); });
}

template <class E>
std::vector<E> Own(const std::vector<E>& rows);

TScalarPtr Own(const TScalarPtr& s) { return s ? boost::make_shared<TScalar>(*s) : s; }
TPVT Own(const TPVT& r) { return TPVT(Own(r.P), Own(r.B), Own(r.Mi)); }
TPVTGRecord Own(const TPVTGRecord& r) { return TPVTGRecord(Own(r.Rv), Own(r.B), Own(r.Mi)); }
TPVTW Own(const TPVTW& r) { return TPVTW(Own(r.P_ref), Own(r.Bw_ref), Own(r.Cw), Own(r.Miw_ref), Own(r.Cvw)); }
TRock Own(const TRock& r) { return TRock(Own(r.P_ref), Own(r.Cr)); }

template <class Row>
Row OwnTwoLevel(const Row& r, TScalarPtr Row::*key)
{
    Row copy(r);
    copy.*key = Own(r.*key);
    copy.under_sat = Own(r.under_sat);
    return copy;
}

TPVTO Own(const TPVTO& r) { return OwnTwoLevel(r, &TPVTO::Rs); }
TPVTG Own(const TPVTG& r) { return OwnTwoLevel(r, &TPVTG::Pg); }

template <class E>
std::vector<E> Own(const std::vector<E>& rows)
{
    std::vector<E> copy;
    copy.reserve(rows.size());
    for (const E& e : rows)
        copy.push_back(Own(e));
    return copy;
}

} // namespace

template <class List>
bool Complete(const List& list)
{
    return Every(list);
}

template <class List>
List PrivateCopy(const List& list)
{
    return Own(list);
}

#define KAVRA_TABLE_COPIES(List) \
    template bool Complete<List>(const List&); \
    template List PrivateCopy<List>(const List&);
KAVRA_TABLE_COPIES(TPVTList)
KAVRA_TABLE_COPIES(TPVTOList)
KAVRA_TABLE_COPIES(TPVTWList)
KAVRA_TABLE_COPIES(TPVTGList)
KAVRA_TABLE_COPIES(TRockList)
#undef KAVRA_TABLE_COPIES

} // namespace kavra
