// The module entry and body: NumPy's array interface first, then every name
// in its fixed order.  A failed NumPy import ends the body before any
// registration.
#include <boost/python.hpp>

#include "Registration.h"
#include "NumpyApi.h"

namespace {

void ModuleBody()
{
    // Class documentation texts are shown; no function gets a generated
    // signature text.
    boost::python::docstring_options docstrings(true, false, false);

    kavra::python::ImportNumpyArrayApi();

    kavra::python::RegisterDeadOilTables(); // TPVT, TPVTTable, TPVTList
    kavra::python::RegisterLiveOilTables(); // TPVTO, TPVTOTable, TPVTOList
    kavra::python::RegisterWaterTables();   // TPVTW, TPVTWList
    kavra::python::RegisterWetGasTables();  // TPVTGRecord, TPVTGRecordTable, TPVTG, TPVTGTable, TPVTGList
    kavra::python::RegisterRock();          // TRock
    kavra::python::RegisterScalar();        // TScalar
    kavra::python::RegisterRockList();      // TRockList
    kavra::python::RegisterCalculations(); // the Calc functions, in the order of core/Calculations.h
    kavra::python::RegisterColumnReductions();
}

} // namespace

// What BOOST_PYTHON_MODULE(_kavracore) expands to, with one correction:
// Boost 1.74 hands back the new module even when the body raised, which
// Python reports as a SystemError.  A body that leaves a Python error set
// gives a null result instead, so the import fails with that very error.
extern "C" __attribute__((visibility("default"))) PyObject* PyInit__kavracore()
{
    static PyModuleDef_Base initial_m_base = {PyObject_HEAD_INIT(nullptr) nullptr, 0, nullptr};
    static PyMethodDef initial_methods[] = {{nullptr, nullptr, 0, nullptr}};
    static PyModuleDef moduledef = {
        initial_m_base, "_kavracore", nullptr, -1, initial_methods, nullptr, nullptr, nullptr, nullptr,
    };
    PyObject* module = boost::python::detail::init_module(moduledef, &ModuleBody);
    if (module != nullptr && PyErr_Occurred()) {
        Py_DECREF(module);
        return nullptr;
    }
    return module;
}
