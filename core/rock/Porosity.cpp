#include "core/rock/Porosity.h"

#include "core/rock/GuardedQuotient.h"
#include "core/types/Scalar.h"

using tessel::core::ITypeGridFunction;
using tessel::core::IWritableTypeGridFunction;

namespace kavra {

void CalcPorosity(const TRockList& rockList, GridFunctionPtr p_PVTNum, GridFunctionPtr p_Po, GridFunctionPtr p_PORO,
                  GridFunctionPtr p_Porosity)
{
    IntGridFunctionPtr PVTNum = CheckedGridFunctionCast<ITypeGridFunction<int>>("PVTNum", p_PVTNum);
    DoubleGridFunctionPtr Po = CheckedGridFunctionCast<ITypeGridFunction<double>>("Po", p_Po);
    DoubleGridFunctionPtr PORO = CheckedGridFunctionCast<ITypeGridFunction<double>>("PORO", p_PORO);
    WritableDoubleGridFunctionPtr Porosity =
        CheckedGridFunctionCast<IWritableTypeGridFunction<double, double>>("Porosity", p_Porosity);

    const std::uint64_t nElts = Porosity->number_of_elements();
    PRECONDITION(nElts == PVTNum->number_of_elements(),
                 "Porosity and PVTNum should have the same number of elements. Porosity elements:"
                     << nElts << ", PVTNUM elements:" << PVTNum->number_of_elements());
    PRECONDITION(nElts == Po->number_of_elements(), "Porosity and Po should have the same number of elements.");
    PRECONDITION(nElts == PORO->number_of_elements(), "Porosity and PORO should have the same number of elements.");

    DispatchGridFunctions(
        ElementTypes<double>(), [nElts, &rockList](auto pvtNum, auto po, auto poro, auto porosity) {
            for (std::uint64_t h = 0; h < nElts; ++h) {
                const int region = pvtNum.get(h);
                // Cells outside every region keep whatever the caller put there.
                if (region <= 0)
                    continue;
                const std::uint64_t pvtID = static_cast<std::uint64_t>(region - 1);
                // For an empty list the upper bound wraps around, in the unsigned type.
                PRECONDITION(pvtID<rockList.size(),
                             (InvalidRegion{pvtID, std::uint64_t(rockList.size()), h}));
                const TRock& rock = rockList[pvtID];

                // exp(x) to second order, in this grouping so results are reproducible.
                const double x = (po.get(h) - ScalarValue(rock.P_ref)) * ScalarValue(rock.Cr);
                const double a = (x * 0.5) * x;
                const double b = x + 1.0;
                const double f = a + b;
                double r = poro.get(h) * f;
                // Capped above only: negative values and NaN are written as they are.
                if (r > 1.0)
                    r = 1.0;
                porosity.set(h, r);
            }
        },
        PVTNum, Po, PORO, Porosity);
}

void CalcPorosityFromPORV(GridFunctionPtr p_BulkVolume, GridFunctionPtr p_PORV, GridFunctionPtr p_Porosity)
{
    DoubleGridFunctionPtr BulkVolume = CheckedGridFunctionCast<ITypeGridFunction<double>>("BulkVolume", p_BulkVolume);
    DoubleGridFunctionPtr PORV = CheckedGridFunctionCast<ITypeGridFunction<double>>("PORV", p_PORV);
    WritableDoubleGridFunctionPtr Porosity =
        CheckedGridFunctionCast<IWritableTypeGridFunction<double, double>>("Porosity", p_Porosity);

    const std::uint64_t nElts = Porosity->number_of_elements();
    PRECONDITION(nElts == BulkVolume->number_of_elements(),
                 "Porosity and BulkVolume should have the same number of elements.");
    PRECONDITION(nElts == PORV->number_of_elements(), "Porosity and PORV should have the same number of elements.");

    GuardedQuotient(PORV, BulkVolume, Porosity, nElts);
}

} // namespace kavra
