#pragma once

#include <vector>

#include <boost/shared_ptr.hpp>

#include "core/utils/Failure.h"
#include "core/utils/gridfunction_checking.h"
#include "tessel/core/ITopology.h"
#include "tessel/strata/ReservoirTopology.h"

namespace kavra {

typedef boost::shared_ptr<std::vector<int>> IntVectorPtr;

// Sifts the non-neighbour connections nnc1[p] -> nnc2[p] (cell numbers of
// the grid of `topo`) for the simulator: connections with a cell outside
// the selection are dropped; pinch-outs (two cells of one column, the first
// at least two layers above the second) are dropped and their first cell is
// marked 1.0 in TranK; connections between columns stay, in their order.
// TranK is 0.0 elsewhere.  The lists are replaced in place at the end, so
// every holder sees the shortened lists; a failure leaves them unchanged.
void CalcTransmissibilityK(IntVectorPtr nnc1, IntVectorPtr nnc2, tessel::strata::ReservoirSelectionTopologyPtr topo,
                           GridFunctionPtr p_TranK);

// The same for a topology of any class; only a selection is accepted.
void CalcTransmissibilityK(IntVectorPtr nnc1, IntVectorPtr nnc2, boost::shared_ptr<tessel::core::ITopology> p_topo,
                           GridFunctionPtr p_TranK);

} // namespace kavra
