#pragma once

#include <cstdint>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "tessel/core/ITopology.h"

namespace tessel {
namespace strata {

// A full grid of nI x nJ x nK cells.  Cell (i, j, k) has the cell number
// i + nI * (j + nJ * k): I fastest, K slowest.
class TESSEL_API ReservoirTopology : public core::ITopology
{
public:
    std::uint16_t nI;
    std::uint16_t nJ;
    std::uint16_t nK;

    ReservoirTopology(std::uint16_t nI, std::uint16_t nJ, std::uint16_t nK);
    ~ReservoirTopology() override;

    std::uint64_t number_of_cells() const override;
};

typedef boost::shared_ptr<ReservoirTopology> ReservoirTopologyPtr;

// One cell of a grid by its coordinates.
struct CellIJK
{
    std::uint16_t i;
    std::uint16_t j;
    std::uint16_t k;
};

// A subset of the cells of a grid, in a chosen order (a cell may appear more
// than once).  Position s in `selected_cells` is the selection index of that
// entry; `cell_to_selection` maps every cell number of the grid to the first
// selection index of that cell, or -1 when the cell is not selected.
class TESSEL_API ReservoirSelectionTopology : public core::ITopology
{
public:
    static constexpr std::int64_t not_selected = -1;

    ReservoirTopologyPtr parent_topology;
    std::uint16_t nI;
    std::uint16_t nJ;
    std::uint16_t nK;
    std::uint64_t number_of_selected_cells;
    CellIJK* selected_cells;
    std::int64_t* cell_to_selection;

    // Every cell must lie inside the parent grid (std::out_of_range otherwise).
    ReservoirSelectionTopology(ReservoirTopologyPtr parent, std::vector<CellIJK> cells);
    ~ReservoirSelectionTopology() override;

    ReservoirSelectionTopology(const ReservoirSelectionTopology&) = delete;
    ReservoirSelectionTopology& operator=(const ReservoirSelectionTopology&) = delete;

    std::uint64_t number_of_cells() const override;

private:
    std::vector<CellIJK> m_cells;
    std::vector<std::int64_t> m_cellToSelection;
};

typedef boost::shared_ptr<ReservoirSelectionTopology> ReservoirSelectionTopologyPtr;

} // namespace strata
} // namespace tessel
