#include "core/parallel/TableCopies.h"

#include <algorithm>

#include <boost/make_shared.hpp>

namespace kavra {
namespace {

bool Set(const TScalarPtr& s) { return s.get() != nullptr; }

bool Complete(const TPVT& r) { return Set(r.P) && Set(r.B); }
bool Complete(const TPVTGRecord& r) { return Set(r.Rv) && Set(r.B); }
bool Complete(const TPVTW& r) { return Set(r.P_ref) && Set(r.Bw_ref) && Set(r.Cw); }
bool Complete(const TRock& r) { return Set(r.P_ref) && Set(r.Cr); }

template <class E>
bool CompleteRows(const std::vector<E>& rows);

bool Complete(const TPVTO& r) { return Set(r.Rs) && CompleteRows(r.under_sat); }
bool Complete(const TPVTG& r) { return Set(r.Pg) && CompleteRows(r.under_sat); }

template <class E>
bool CompleteRows(const std::vector<E>& rows)
{
    return !rows.empty() && std::all_of(rows.begin(), rows.end(), [](const E& e) { return Complete(e); });
}

TScalarPtr Own(const TScalarPtr& s) { return s ? boost::make_shared<TScalar>(*s) : s; }

TPVT Own(const TPVT& r) { return TPVT(Own(r.P), Own(r.B), Own(r.Mi)); }
TPVTGRecord Own(const TPVTGRecord& r) { return TPVTGRecord(Own(r.Rv), Own(r.B), Own(r.Mi)); }
TPVTW Own(const TPVTW& r) { return TPVTW(Own(r.P_ref), Own(r.Bw_ref), Own(r.Cw), Own(r.Miw_ref), Own(r.Cvw)); }
TRock Own(const TRock& r) { return TRock(Own(r.P_ref), Own(r.Cr)); }

template <class E>
std::vector<E> OwnRows(const std::vector<E>& rows);

template <class E>
std::vector<E> Own(const std::vector<E>& rows)
{
    return OwnRows(rows);
}

template <class Row>
Row OwnTwoLevel(const Row& r, TScalarPtr Row::*key)
{
    Row copy(r);
    copy.*key = Own(r.*key);
    copy.under_sat = OwnRows(r.under_sat);
    return copy;
}

TPVTO Own(const TPVTO& r) { return OwnTwoLevel(r, &TPVTO::Rs); }
TPVTG Own(const TPVTG& r) { return OwnTwoLevel(r, &TPVTG::Pg); }

template <class E>
std::vector<E> OwnRows(const std::vector<E>& rows)
{
    std::vector<E> copy;
    copy.reserve(rows.size());
    for (const E& e : rows)
        copy.push_back(Own(e));
    return copy;
}

} // namespace

bool Complete(const TPVTList& list) { return std::all_of(list.begin(), list.end(), CompleteRows<TPVT>); }
bool Complete(const TPVTOList& list) { return std::all_of(list.begin(), list.end(), CompleteRows<TPVTO>); }
bool Complete(const TPVTWList& list) { return CompleteRows(list) || list.empty(); }
bool Complete(const TPVTGList& list) { return std::all_of(list.begin(), list.end(), CompleteRows<TPVTG>); }
bool Complete(const TRockList& list) { return CompleteRows(list) || list.empty(); }

TPVTList PrivateCopy(const TPVTList& list) { return OwnRows(list); }
TPVTOList PrivateCopy(const TPVTOList& list) { return OwnRows(list); }
TPVTWList PrivateCopy(const TPVTWList& list) { return OwnRows(list); }
TPVTGList PrivateCopy(const TPVTGList& list) { return OwnRows(list); }
TRockList PrivateCopy(const TRockList& list) { return OwnRows(list); }

} // namespace kavra
