#include "core/types/Records.h"

#include <utility>

namespace kavra {

namespace {
TScalarPtr NewScalar()
{
    return TScalarPtr(new TScalar());
}
} // namespace

TPVT::TPVT() : P(NewScalar()), B(NewScalar()), Mi(NewScalar()) {}
TPVT::TPVT(TScalarPtr P_, TScalarPtr B_, TScalarPtr Mi_) : P(std::move(P_)), B(std::move(B_)), Mi(std::move(Mi_)) {}

TPVTO::TPVTO() : Rs(NewScalar()), under_sat(1) {}
TPVTO::TPVTO(TScalarPtr Rs_, TScalarPtr P, TScalarPtr Bo, TScalarPtr Mio) : Rs(std::move(Rs_))
{
    under_sat.push_back(TPVT(std::move(P), std::move(Bo), std::move(Mio)));
}

TPVTW::TPVTW() : P_ref(NewScalar()), Bw_ref(NewScalar()), Cw(NewScalar()), Miw_ref(NewScalar()), Cvw(NewScalar()) {}
TPVTW::TPVTW(TScalarPtr P_ref_, TScalarPtr Bw_ref_, TScalarPtr Cw_, TScalarPtr Miw_ref_, TScalarPtr Cvw_)
    : P_ref(std::move(P_ref_)), Bw_ref(std::move(Bw_ref_)), Cw(std::move(Cw_)), Miw_ref(std::move(Miw_ref_)),
      Cvw(std::move(Cvw_))
{
}

TPVTGRecord::TPVTGRecord() : Rv(NewScalar()), B(NewScalar()), Mi(NewScalar()) {}
TPVTGRecord::TPVTGRecord(TScalarPtr Rv_, TScalarPtr B_, TScalarPtr Mi_)
    : Rv(std::move(Rv_)), B(std::move(B_)), Mi(std::move(Mi_))
{
}

TPVTG::TPVTG() : Pg(NewScalar()), under_sat(1) {}
TPVTG::TPVTG(TScalarPtr Pg_, TScalarPtr Rv, TScalarPtr Bg, TScalarPtr Mig) : Pg(std::move(Pg_))
{
    under_sat.push_back(TPVTGRecord(std::move(Rv), std::move(Bg), std::move(Mig)));
}

TRock::TRock() : P_ref(NewScalar()), Cr(NewScalar()) {}
TRock::TRock(TScalarPtr P_ref_, TScalarPtr Cr_) : P_ref(std::move(P_ref_)), Cr(std::move(Cr_)) {}

} // namespace kavra
