#include "core/vadra/TransmissibilityK.h"

#include <algorithm>

using tessel::core::SelectionViewGridFunction;
using tessel::strata::CellIJK;
using tessel::strata::ReservoirSelectionTopology;

namespace kavra {
namespace {

// Cell numbers count I fastest, then J, then K.  Only called with numbers
// already checked to lie in the grid, so nI and nJ are not 0.
CellIJK DecodeCell(const ReservoirSelectionTopology& topo, int cell)
{
    const std::uint64_t c = static_cast<std::uint64_t>(cell);
    const std::uint64_t ij = c / topo.nI;
    return CellIJK{static_cast<std::uint16_t>(c % topo.nI), static_cast<std::uint16_t>(ij % topo.nJ),
                   static_cast<std::uint16_t>(ij / topo.nJ)};
}

bool IsSelected(const ReservoirSelectionTopology& topo, int cell)
{
    return topo.cell_to_selection[cell] != -1;
}

bool SameCell(const CellIJK& a, const CellIJK& b)
{
    return a.i == b.i && a.j == b.j && a.k == b.k;
}

// The selection table is indexed with every cell number, so each must lie
// in the grid before anything is read or written.
void CheckCellNumbers(const std::vector<int>& nnc, const char* listName, std::uint64_t nCells)
{
    for (std::size_t p = 0; p < nnc.size(); ++p) {
        const int cell = nnc[p];
        PRECONDITION(cell >= 0 && std::uint64_t(cell) < nCells, "Cell number " << cell << " at " << listName << "["
                                                                    << p << "] lies outside the grid of " << nCells
                                                                    << " cells.");
    }
}

// Marks cell c in TranK.  TranK may view another grid than topo's: the cell
// is looked up in TranK's own table, and a cell that its table or its
// backing array does not hold is refused where the mark would be written.
void Mark(const SelectionViewGridFunction& TranK, const CellIJK& c, int cell, std::size_t p)
{
    const std::uint64_t entry = c.i + TranK.stride_j * std::uint64_t(c.j) + TranK.stride_k * c.k;
    const bool held = entry < TranK.table_size && TranK.selection_table[entry] < TranK.backing_array->count;
    PRECONDITION(held, "TranK has no element for cell " << cell << " at nnc1[" << p << "], which topo selects.");
    TranK.backing_array->data[TranK.selection_table[entry]] = 1.0;
}

} // namespace

void CalcTransmissibilityK(IntVectorPtr nnc1, IntVectorPtr nnc2, tessel::strata::ReservoirSelectionTopologyPtr topo,
                           GridFunctionPtr p_TranK)
{
    // Check: nothing is changed until every argument has passed.
    PRECONDITION(nnc1.get()!=0, "The NNC list nnc1 is None!!");
    PRECONDITION(nnc2.get()!=0, "The NNC list nnc2 is None!!");
    PRECONDITION(nnc1->size()==nnc2->size(),
                 "NNC arrays have different sizes, nnc1=" << nnc1->size() << ", nnc2=" << nnc2->size());
    PRECONDITION(topo.get()!=0, "The selection topology topo is None!!");
    boost::shared_ptr<SelectionViewGridFunction> TranK =
        CheckedGridFunctionCast<SelectionViewGridFunction>("TranK", p_TranK);

    const std::uint64_t nCells = std::uint64_t(topo->nI) * topo->nJ * topo->nK;
    CheckCellNumbers(*nnc1, "nnc1", nCells);
    CheckCellNumbers(*nnc2, "nnc2", nCells);

    // Clear.
    double* marks = TranK->backing_array->data;
    std::fill(marks, marks + TranK->backing_array->count, 0.0);

    // Walk.  A repeated pinch-out from the cell marked last is recognised by
    // that cell alone, whatever connections between columns stand between.
    std::vector<int> kept1;
    std::vector<int> kept2;
    CellIJK lastMarked{65535, 65535, 65535};
    for (std::size_t p = 0; p < nnc1->size(); ++p) {
        const int n1 = (*nnc1)[p];
        const int n2 = (*nnc2)[p];
        if (!IsSelected(*topo, n1) || !IsSelected(*topo, n2))
            continue;
        const CellIJK c1 = DecodeCell(*topo, n1);
        const CellIJK c2 = DecodeCell(*topo, n2);
        if (c1.i != c2.i || c1.j != c2.j) {
            kept1.push_back(n1);
            kept2.push_back(n2);
            continue;
        }
        if (SameCell(c1, lastMarked))
            continue;
        // A pinch-out runs downwards in K and skips at least one layer.
        const int diff = int(c2.k) - int(c1.k);
        PRECONDITION(diff>1, (StrangePinchOut{"Vadra pre-process error: Strange pinch-out connection!!"}));
        Mark(*TranK, c1, n1, p);
        lastMarked = c1;
    }

    // Replace: the vectors themselves stay, so every holder sees the new lists.
    nnc1->swap(kept1);
    nnc2->swap(kept2);
}

void CalcTransmissibilityK(IntVectorPtr nnc1, IntVectorPtr nnc2, boost::shared_ptr<tessel::core::ITopology> p_topo,
                           GridFunctionPtr p_TranK)
{
    tessel::strata::ReservoirSelectionTopologyPtr topo =
        boost::dynamic_pointer_cast<ReservoirSelectionTopology>(p_topo);
    PRECONDITION(topo, "Invalid topology passed.");
    CalcTransmissibilityK(nnc1, nnc2, topo, p_TranK);
}

} // namespace kavra
