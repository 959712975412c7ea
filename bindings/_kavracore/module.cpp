// The module body: NumPy's array interface first, then every name in its
// fixed order.  A failed NumPy import ends the body before any registration.
#include <boost/python.hpp>

#include "Registration.h"
#include "numpy_api.h"

BOOST_PYTHON_MODULE(_kavracore)
{
    // Class documentation texts are shown; no function gets a generated
    // signature text.
    boost::python::docstring_options docstrings(true, false, false);

    kavra::python::ImportNumpyArrayApi();

    kavra::python::RegisterBulkVolume();
    kavra::python::RegisterRsFromComponents();
}
