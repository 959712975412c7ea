// Python names of the cell calculations.  Every function takes positional
// arguments only; grid functions arrive as boost::shared_ptr<IGridFunction>
// through the converters that the tessel module registers.
#include <boost/python.hpp>

#include "Registration.h"
#include "core/pvt/BubblePointPressure.h"
#include "core/pvt/Interpolation.h"
#include "core/pvt/OneOverB.h"
#include "core/pvt/OneOverBg.h"
#include "core/pvt/OneOverBo.h"
#include "core/pvt/OneOverBw.h"
#include "core/pvt/RsFromComponents.h"
#include "core/rock/BulkVolume.h"
#include "core/rock/Porosity.h"
#include "core/vadra/TransmissibilityK.h"

namespace bp = boost::python;

namespace kavra {
namespace python {

void RegisterPvtCalculations()
{
    bp::def("CalcBubblePointPressure", &kavra::CalcBubblePointPressure);
    bp::def("CalcOneOverB", &kavra::CalcOneOverB);
    bp::def("InterpolateB", &kavra::InterpolateB);
    bp::def("CalcOneOverBo", &kavra::CalcOneOverBo);
    bp::def("CalcOneOverBw", &kavra::CalcOneOverBw);
    bp::def("CalcOneOverBg", &kavra::CalcOneOverBg);
}

void RegisterPorosity()
{
    bp::def("CalcPorosity", &kavra::CalcPorosity);
    bp::def("CalcPorosityFromPORV", &kavra::CalcPorosityFromPORV);
}

void RegisterBulkVolume()
{
    bp::def("CalcBulkVolume", static_cast<void (*)(GridFunctionPtr, GridFunctionPtr)>(&kavra::CalcBulkVolume));
    bp::def("CalcBulkVolume",
            static_cast<void (*)(GridFunctionPtr, GridFunctionPtr, GridFunctionPtr)>(&kavra::CalcBulkVolume));
}

// Boost.Python tries the overload registered last first: any topology enters
// through ITopology and is cast there, so a wrong class gets this module's
// own error rather than an argument error.
void RegisterTransmissibilityK()
{
    bp::def("CalcTransmissibilityK",
            static_cast<void (*)(IntVectorPtr, IntVectorPtr, tessel::strata::ReservoirSelectionTopologyPtr,
                                 GridFunctionPtr)>(&kavra::CalcTransmissibilityK));
    bp::def("CalcTransmissibilityK",
            static_cast<void (*)(IntVectorPtr, IntVectorPtr, boost::shared_ptr<tessel::core::ITopology>,
                                 GridFunctionPtr)>(&kavra::CalcTransmissibilityK));
}

void RegisterRsFromComponents()
{
    bp::def("CalcRsFromComponents", &kavra::CalcRsFromComponents);
}

} // namespace python
} // namespace kavra
