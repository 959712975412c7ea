#include "core/pvt/Interpolation.h"

namespace kavra {

namespace {

double SaturatedP(const TPVTO& row) { return ScalarValue(SaturatedPoint(row).P); }
double SaturatedB(const TPVTO& row) { return ScalarValue(SaturatedPoint(row).B); }
double OilRs(const TPVTO& row) { return ScalarValue(row.Rs); }
double RowP(const TPVT& row) { return ScalarValue(row.P); }
double RowB(const TPVT& row) { return ScalarValue(row.B); }
double GasPg(const TPVTG& row) { return ScalarValue(row.Pg); }
double SaturatedRv(const TPVTG& row) { return ScalarValue(SaturatedPoint(row).Rv); }
double SaturatedOneOverBg(const TPVTG& row) { return 1.0 / ScalarValue(SaturatedPoint(row).B); }
double RecordRv(const TPVTGRecord& record) { return ScalarValue(record.Rv); }
double RecordOneOverB(const TPVTGRecord& record) { return 1.0 / ScalarValue(record.B); }

} // namespace

double InterpolatePbub(const TPVTOTable& table, double Rs)
{
    return InterpolateRows<LineForm::Slope>(table, Rs, Rs, OilRs, OilRs, SaturatedP);
}

double InterpolateB(const TPVTTable& table, double pressure)
{
    return InterpolateRows<LineForm::Slope>(table, pressure, pressure, RowP, RowP, RowB);
}

double InterpolateBoSat(const TPVTOTable& table, double pressure)
{
    return InterpolateRows<LineForm::Slope>(table, pressure, pressure, SaturatedP, SaturatedP, SaturatedB);
}

double InterpolateOneOverBgSat(const TPVTGTable& table, double Rv, double Pg)
{
    return InterpolateRows<LineForm::Slope>(table, Pg, Rv, GasPg, SaturatedRv, SaturatedOneOverBg);
}

double InterpolateOneOverBgRecords(const TPVTGRecordTable& records, double Rv)
{
    return InterpolateRows<LineForm::Fraction>(records, Rv, Rv, RecordRv, RecordRv, RecordOneOverB);
}

} // namespace kavra
