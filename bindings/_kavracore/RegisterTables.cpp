// Python classes of the tables: TScalar, the six records and the nine lists.
// Records and scalars are held by boost::shared_ptr; a record's scalar
// properties hand back the very scalar objects they hold.
#include <boost/python.hpp>

#include "RegisterList.h"
#include "Registration.h"
#include "core/types/Records.h"

namespace bp = boost::python;

namespace kavra {
namespace python {

namespace {

// Rs, Pg and under_sat are properties over members; under_sat is handed out
// as a reference into the record that keeps the record alive.
template <class Record, class Member>
void AddScalarProperty(bp::class_<Record, boost::shared_ptr<Record>>& cls, const char* name, Member Record::*member)
{
    cls.add_property(name, bp::make_getter(member, bp::return_value_policy<bp::return_by_value>()),
                     bp::make_setter(member));
}

// Writing under_sat replaces the rows in place by copies of the given ones.
// The old rows are swapped out and released only when the record is whole
// again: their scalars' release can run Python that uses this record.
template <class Record, class Rows>
void SetUnderSat(Record& record, const Rows& rows)
{
    Rows replaced(rows);
    record.under_sat.swap(replaced);
}

template <class Record, class Rows>
void AddUnderSatProperty(bp::class_<Record, boost::shared_ptr<Record>>& cls, Rows Record::*member)
{
    cls.add_property("under_sat", bp::make_getter(member, bp::return_internal_reference<1>()),
                     &SetUnderSat<Record, Rows>);
}

// The scalar fields of a record, as properties that read and write the very
// scalar objects, in the order of its fields (core/types/Records.h).
template <class Record>
void AddFields(bp::class_<Record, boost::shared_ptr<Record>>& cls)
{
    for (std::size_t f = 0; f < RecordFields<Record>::size; ++f)
        cls.def_readwrite(RecordFields<Record>::names[f], RecordFields<Record>::members[f]);
}

} // namespace

void RegisterDeadOilTables()
{
    bp::class_<TPVT, boost::shared_ptr<TPVT>> cls(
        "TPVT", "TPVT( kavra::TScalarPtr _P, kavra::TScalarPtr _B, kavra::TScalarPtr _Mi )",
        bp::init<TScalarPtr, TScalarPtr, TScalarPtr>());
    AddFields(cls);
    RegisterList<TPVT>("TPVTTable");
    RegisterList<TPVTTable>("TPVTList");
}

void RegisterLiveOilTables()
{
    bp::class_<TPVTO, boost::shared_ptr<TPVTO>> cls(
        "TPVTO", "TPVTO( kavra::TScalarPtr RS, kavra::TScalarPtr P, kavra::TScalarPtr Bo, kavra::TScalarPtr Mio )",
        bp::init<TScalarPtr, TScalarPtr, TScalarPtr, TScalarPtr>());
    AddScalarProperty(cls, RecordFields<TPVTO>::names[0], RecordFields<TPVTO>::members[0]);
    AddUnderSatProperty(cls, &TPVTO::under_sat);
    RegisterList<TPVTO>("TPVTOTable");
    RegisterList<TPVTOTable>("TPVTOList");
}

void RegisterWaterTables()
{
    bp::class_<TPVTW, boost::shared_ptr<TPVTW>> cls(
        "TPVTW",
        "TPVTW( kavra::TScalarPtr _P_ref, kavra::TScalarPtr _Bw_ref, kavra::TScalarPtr _Cw, kavra::TScalarPtr "
        "_Miw_ref, kavra::TScalarPtr _Cvw )",
        bp::init<TScalarPtr, TScalarPtr, TScalarPtr, TScalarPtr, TScalarPtr>());
    AddFields(cls);
    RegisterList<TPVTW>("TPVTWList");
}

void RegisterWetGasTables()
{
    bp::class_<TPVTGRecord, boost::shared_ptr<TPVTGRecord>> record(
        "TPVTGRecord", "TPVTGRecord( kavra::TScalarPtr _Rv, kavra::TScalarPtr _B, kavra::TScalarPtr _Mi )",
        bp::init<TScalarPtr, TScalarPtr, TScalarPtr>());
    AddFields(record);
    RegisterList<TPVTGRecord>("TPVTGRecordTable");

    bp::class_<TPVTG, boost::shared_ptr<TPVTG>> cls(
        "TPVTG", "TPVTG( kavra::TScalarPtr Pg, kavra::TScalarPtr Rv, kavra::TScalarPtr Bg, kavra::TScalarPtr Mig )",
        bp::init<TScalarPtr, TScalarPtr, TScalarPtr, TScalarPtr>());
    AddScalarProperty(cls, RecordFields<TPVTG>::names[0], RecordFields<TPVTG>::members[0]);
    AddUnderSatProperty(cls, &TPVTG::under_sat);
    RegisterList<TPVTG>("TPVTGTable");
    RegisterList<TPVTGTable>("TPVTGList");
}

void RegisterRock()
{
    bp::class_<TRock, boost::shared_ptr<TRock>> cls("TRock", "TRock( kavra::TScalarPtr _P_ref, kavra::TScalarPtr _Cr )",
                                                   bp::init<TScalarPtr, TScalarPtr>());
    AddFields(cls);
}

void RegisterScalar()
{
    bp::class_<TScalar, TScalarPtr, boost::noncopyable>("TScalar", "TScalar( double value, string category, string unit)",
                                                        bp::init<double, std::string, std::string>())
        .def_readwrite("value", &TScalar::value)
        .def_readwrite("category", &TScalar::category)
        .def_readwrite("unit", &TScalar::unit)
        .def(bp::self == bp::self)
        .def(bp::self != bp::self)
        .def("__str__", &TScalar::str);
}

void RegisterRockList()
{
    RegisterList<TRock>("TRockList");
}

} // namespace python
} // namespace kavra
