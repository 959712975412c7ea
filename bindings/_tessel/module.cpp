#define TESSEL_PYTHON_MODULE_BODY
#include "TesselPython.h"

BOOST_PYTHON_MODULE(_tessel)
{
    if (_import_array() < 0)
        boost::python::throw_error_already_set();

    tessel::python::RegisterTopologies();
    tessel::python::RegisterGridFunctions();
    tessel::python::RegisterIntVector();
}
