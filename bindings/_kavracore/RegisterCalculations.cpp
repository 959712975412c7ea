// Python names of the cell calculations, in the order of the calculation
// list (core/Calculations.h).  Every function takes positional arguments
// only; grid functions arrive as boost::shared_ptr<IGridFunction> through the
// converters that the tessel module registers.
#include <boost/python.hpp>

#include "Registration.h"
#include "core/Calculations.h"

namespace bp = boost::python;

namespace kavra {
namespace python {
namespace {

void RegisterInterpolateB()
{
    bp::def("InterpolateB", &kavra::InterpolateB);
}

// Boost.Python tries the overload registered last first: any topology enters
// through ITopology and is cast there, so a wrong class gets this module's
// own error rather than an argument error.
void RegisterCalcTransmissibilityK()
{
    bp::def("CalcTransmissibilityK",
            static_cast<void (*)(IntVectorPtr, IntVectorPtr, tessel::strata::ReservoirSelectionTopologyPtr,
                                 GridFunctionPtr)>(&kavra::CalcTransmissibilityK));
    bp::def("CalcTransmissibilityK",
            static_cast<void (*)(IntVectorPtr, IntVectorPtr, boost::shared_ptr<tessel::core::ITopology>,
                                 GridFunctionPtr)>(&kavra::CalcTransmissibilityK));
}

} // namespace

void RegisterCalculations()
{
#define KAVRA_REGISTER_CELL(name, entry, List, inputs, kavracore) \
    if constexpr (kavracore)                                        \
        bp::def(#entry, static_cast<CalcPointer<List, inputs>>(&kavra::entry));
#define KAVRA_REGISTER_OTHER(entry) Register##entry();
    KAVRA_CALCULATIONS(KAVRA_REGISTER_CELL, KAVRA_REGISTER_OTHER)
#undef KAVRA_REGISTER_CELL
#undef KAVRA_REGISTER_OTHER
}

} // namespace python
} // namespace kavra
