#pragma once

#include <vector>

#include "core/types/Scalar.h"

namespace kavra {

// The rows of the PVT and rock tables.  Plain data: every number is a shared
// scalar, copies share their scalars, and `under_sat` is copied by value.
// A default record holds new default scalars of its own (and one default
// row in `under_sat`); it arises only when a list grows by resize.
// Records compare by identity: two records are equal only when they are
// the same object.

// Dead fluid row: pressure, formation volume factor, viscosity.
struct TPVT
{
    TScalarPtr P;
    TScalarPtr B;
    TScalarPtr Mi;

    TPVT();
    TPVT(TScalarPtr P, TScalarPtr B, TScalarPtr Mi);
    bool operator==(const TPVT& other) const { return this == &other; }
};

typedef std::vector<TPVT> TPVTTable;
typedef std::vector<TPVTTable> TPVTList;

// Live oil row: one Rs with its pressure rows; under_sat[0] is the saturated point.
struct TPVTO
{
    TScalarPtr Rs;
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
    TScalarPtr P_ref;
    TScalarPtr Bw_ref;
    TScalarPtr Cw;
    TScalarPtr Miw_ref;
    TScalarPtr Cvw;

    TPVTW();
    TPVTW(TScalarPtr P_ref, TScalarPtr Bw_ref, TScalarPtr Cw, TScalarPtr Miw_ref, TScalarPtr Cvw);
    bool operator==(const TPVTW& other) const { return this == &other; }
};

typedef std::vector<TPVTW> TPVTWList;

// Wet gas record: vaporised oil ratio, formation volume factor, viscosity.
struct TPVTGRecord
{
    TScalarPtr Rv;
    TScalarPtr B;
    TScalarPtr Mi;

    TPVTGRecord();
    TPVTGRecord(TScalarPtr Rv, TScalarPtr B, TScalarPtr Mi);
    bool operator==(const TPVTGRecord& other) const { return this == &other; }
};

typedef std::vector<TPVTGRecord> TPVTGRecordTable;

// Wet gas row: one gas pressure with its Rv records; under_sat[0] is the saturated point.
struct TPVTG
{
    TScalarPtr Pg;
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
    TScalarPtr P_ref;
    TScalarPtr Cr;

    TRock();
    TRock(TScalarPtr P_ref, TScalarPtr Cr);
    bool operator==(const TRock& other) const { return this == &other; }
};

typedef std::vector<TRock> TRockList;

} // namespace kavra
