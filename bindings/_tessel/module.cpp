#define TESSEL_PYTHON_MODULE_BODY
#include "tessel_python.h"

BOOST_PYTHON_MODULE(_tessel)
{
    if (_import_array() < 0)
        boost::python::throw_error_already_set();

    tessel::python::register_topologies();
    tessel::python::register_grid_functions();
    tessel::python::register_int_vector();
}
