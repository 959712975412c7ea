#pragma once

// Shape and layout checks that stand in front of the column reductions: the
// object must be a NumPy array with one element per cell of the topology.
// A failure raises ValueError; the element type is not looked at here.
#include <boost/python/object.hpp>

#include "tessel/strata/ReservoirTopology.h"

namespace kavra {

// A C-contiguous array, one-dimensional with nI * nJ * nK elements or
// three-dimensional of the shape (nK, nJ, nI).
void CheckReservoirArray(tessel::strata::ReservoirTopologyPtr topology, boost::python::object array);

// A one-dimensional array with one element per selected cell, any stride.
void CheckSelectionArray(tessel::strata::ReservoirSelectionTopologyPtr topology, boost::python::object array);

} // namespace kavra
