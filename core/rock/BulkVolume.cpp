#include "core/rock/BulkVolume.h"

#include "core/rock/GuardedQuotient.h"

using tessel::core::ITypeGridFunction;
using tessel::core::IWritableTypeGridFunction;

namespace kavra {

void CalcBulkVolume(GridFunctionPtr p_PORV, GridFunctionPtr p_PORO, GridFunctionPtr p_BulkVolume)
{
    DoubleGridFunctionPtr PORV = CheckedGridFunctionCast<ITypeGridFunction<double>>("PORV", p_PORV);
    DoubleGridFunctionPtr PORO = CheckedGridFunctionCast<ITypeGridFunction<double>>("PORO", p_PORO);
    WritableDoubleGridFunctionPtr BulkVolume =
        CheckedGridFunctionCast<IWritableTypeGridFunction<double, double>>("BulkVolume", p_BulkVolume);

    const std::uint64_t nElts = BulkVolume->number_of_elements();
    PRECONDITION(nElts == PORV->number_of_elements(), "BulkVolume and PORV should have the same number of elements.");
    PRECONDITION(nElts == PORO->number_of_elements(), "BulkVolume and PORO should have the same number of elements.");

    GuardedQuotient(PORV, PORO, BulkVolume, nElts);
}

void CalcBulkVolume(GridFunctionPtr p_NTG, GridFunctionPtr p_BulkVolume)
{
    DoubleGridFunctionPtr NTG = CheckedGridFunctionCast<ITypeGridFunction<double>>("NTG", p_NTG);
    WritableDoubleGridFunctionPtr BulkVolume =
        CheckedGridFunctionCast<IWritableTypeGridFunction<double, double>>("BulkVolume", p_BulkVolume);

    const std::uint64_t nElts = BulkVolume->number_of_elements();
    PRECONDITION(nElts == NTG->number_of_elements(), "BulkVolume and NTG should have the same number of elements.");

    DispatchGridFunctions(
        ElementTypes<double>(), [nElts](auto ntg, auto bulkVolume) {
            for (std::uint64_t h = 0; h < nElts; ++h)
                bulkVolume.set(h, bulkVolume.get(h) * ntg.get(h));
        },
        NTG, BulkVolume);
}

} // namespace kavra
