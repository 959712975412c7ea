#pragma once

#include <cstddef>
#include <vector>

#include "core/types/Scalar.h"

namespace kavra {

// The rows of the PVT and rock tables.  Plain data: every number is a shared
// scalar, copies share their scalars, and `under_sat` is copied by value.
// A default record holds new default scalars of its own (and one default
// row in `under_sat`); it arises only when a list grows by resize.
// Records compare by identity: two records are equal only when they are
// the same object.

// The scalar fields of each record, in the order of the numbers of a deck's
// record (and of kavra.tables' columns): F(Record, field) for each.  The
// two-level rows (TPVTO, TPVTG) have a key field and their rows in
// under_sat; KAVRA_KEY_OF_<Row> names the key.  RecordFields<Record> gives
// them as member pointers and names.
#define KAVRA_FIELDS_OF_TPVT(F) F(TPVT, P) F(TPVT, B) F(TPVT, Mi)
#define KAVRA_FIELDS_OF_TPVTW(F) F(TPVTW, P_ref) F(TPVTW, Bw_ref) F(TPVTW, Cw) F(TPVTW, Miw_ref) F(TPVTW, Cvw)
#define KAVRA_FIELDS_OF_TPVTGRecord(F) F(TPVTGRecord, Rv) F(TPVTGRecord, B) F(TPVTGRecord, Mi)
#define KAVRA_FIELDS_OF_TRock(F) F(TRock, P_ref) F(TRock, Cr)
#define KAVRA_KEY_OF_TPVTO(F) F(TPVTO, Rs)
#define KAVRA_KEY_OF_TPVTG(F) F(TPVTG, Pg)
#define KAVRA_DECLARE_FIELD(Record, field) TScalarPtr field;

// Dead fluid row: pressure, formation volume factor, viscosity.
struct TPVT
{
    KAVRA_FIELDS_OF_TPVT(KAVRA_DECLARE_FIELD)

    TPVT();
    TPVT(TScalarPtr P, TScalarPtr B, TScalarPtr Mi);
    bool operator==(const TPVT& other) const { return this == &other; }
};

typedef std::vector<TPVT> TPVTTable;
typedef std::vector<TPVTTable> TPVTList;

// Live oil row: one Rs with its pressure rows; under_sat[0] is the saturated point.
struct TPVTO
{
    KAVRA_KEY_OF_TPVTO(KAVRA_DECLARE_FIELD)
    TPVTTable under_sat;

    TPVTO();
    TPVTO(TScalarPtr Rs, TScalarPtr P, TScalarPtr Bo, TScalarPtr Mio);
    bool operator==(const TPVTO& other) const { return this == &other; }
};

typedef std::vector<TPVTO> TPVTOTable;
typedef std::vector<TPVTOTable> TPVTOList;

// Water of one region.
struct TPVTW
{
    KAVRA_FIELDS_OF_TPVTW(KAVRA_DECLARE_FIELD)

    TPVTW();
    TPVTW(TScalarPtr P_ref, TScalarPtr Bw_ref, TScalarPtr Cw, TScalarPtr Miw_ref, TScalarPtr Cvw);
    bool operator==(const TPVTW& other) const { return this == &other; }
};

typedef std::vector<TPVTW> TPVTWList;

// Wet gas record: vaporised oil ratio, formation volume factor, viscosity.
struct TPVTGRecord
{
    KAVRA_FIELDS_OF_TPVTGRecord(KAVRA_DECLARE_FIELD)

    TPVTGRecord();
    TPVTGRecord(TScalarPtr Rv, TScalarPtr B, TScalarPtr Mi);
    bool operator==(const TPVTGRecord& other) const { return this == &other; }
};

typedef std::vector<TPVTGRecord> TPVTGRecordTable;

// Wet gas row: one gas pressure with its Rv records; under_sat[0] is the saturated point.
struct TPVTG
{
    KAVRA_KEY_OF_TPVTG(KAVRA_DECLARE_FIELD)
    TPVTGRecordTable under_sat;

    TPVTG();
    TPVTG(TScalarPtr Pg, TScalarPtr Rv, TScalarPtr Bg, TScalarPtr Mig);
    bool operator==(const TPVTG& other) const { return this == &other; }
};

typedef std::vector<TPVTG> TPVTGTable;
typedef std::vector<TPVTGTable> TPVTGList;

// Rock of one region: reference pressure and compressibility.
struct TRock
{
    KAVRA_FIELDS_OF_TRock(KAVRA_DECLARE_FIELD)

    TRock();
    TRock(TScalarPtr P_ref, TScalarPtr Cr);
    bool operator==(const TRock& other) const { return this == &other; }
};

typedef std::vector<TRock> TRockList;

#define KAVRA_FIELD_MEMBER(Record, field) &Record::field,
#define KAVRA_FIELD_NAME(Record, field) #field,

// The fields of a record with one scalar per number (TPVT, TPVTW,
// TPVTGRecord, TRock), or the key of a two-level row (TPVTO, TPVTG).
template <class Record>
struct RecordFields;

#define KAVRA_RECORD_FIELDS(Record, FIELDS)                                          \
    template <>                                                                      \
    struct RecordFields<Record>                                                      \
    {                                                                                \
        static constexpr TScalarPtr Record::*members[] = {FIELDS(KAVRA_FIELD_MEMBER)}; \
        static constexpr const char* names[] = {FIELDS(KAVRA_FIELD_NAME)};           \
        static constexpr std::size_t size = sizeof(names) / sizeof(names[0]);        \
    };
KAVRA_RECORD_FIELDS(TPVT, KAVRA_FIELDS_OF_TPVT)
KAVRA_RECORD_FIELDS(TPVTW, KAVRA_FIELDS_OF_TPVTW)
KAVRA_RECORD_FIELDS(TPVTGRecord, KAVRA_FIELDS_OF_TPVTGRecord)
KAVRA_RECORD_FIELDS(TRock, KAVRA_FIELDS_OF_TRock)
KAVRA_RECORD_FIELDS(TPVTO, KAVRA_KEY_OF_TPVTO)
KAVRA_RECORD_FIELDS(TPVTG, KAVRA_KEY_OF_TPVTG)
#undef KAVRA_RECORD_FIELDS

} // namespace kavra
