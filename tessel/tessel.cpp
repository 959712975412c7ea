// The out-of-line members of the tessel classes: their vtables and type_info
// are emitted here, in the one shared library that every module links.
#include <stdexcept>
#include <string>

#include "tessel/core/GridFunction.h"
#include "tessel/strata/ReservoirTopology.h"

namespace tessel {
namespace core {

IGridFunction::~IGridFunction() = default;

template <class T>
ITypeGridFunction<T>::~ITypeGridFunction() = default;

template <class T, class V>
IWritableTypeGridFunction<T, V>::~IWritableTypeGridFunction() = default;

template class ITypeGridFunction<int>;
template class ITypeGridFunction<float>;
template class ITypeGridFunction<double>;
template class IWritableTypeGridFunction<int, int>;
template class IWritableTypeGridFunction<float, float>;
template class IWritableTypeGridFunction<double, double>;

ITopology::~ITopology() = default;

OriginalToSelectionMapperImpl<3, hmt::CellHandleMapper>::OriginalToSelectionMapperImpl(
    const strata::ReservoirSelectionTopology& selection)
    : selection_table(nullptr), stride_k(std::uint64_t(selection.nI) * selection.nJ),
      stride_j(selection.nI), table_size(std::uint64_t(selection.nI) * selection.nJ * selection.nK),
      m_table(table_size, not_selected)
{
    selection_table = m_table.data();
    // Walk backwards so that a repeated cell maps to its first selection index.
    for (std::uint64_t s = selection.number_of_selected_cells; s-- > 0;) {
        const strata::CellIJK& c = selection.selected_cells[s];
        m_table[c.i + stride_j * std::uint64_t(c.j) + stride_k * c.k] = s;
    }
}

OriginalToSelectionMapperImpl<3, hmt::CellHandleMapper>::OriginalToSelectionMapperImpl(
    OriginalToSelectionMapperImpl&& other) noexcept
    : selection_table(nullptr), stride_k(other.stride_k), stride_j(other.stride_j), table_size(other.table_size),
      m_table(std::move(other.m_table))
{
    selection_table = m_table.data();
    other.selection_table = nullptr;
}

boost::shared_ptr<SelectionViewGridFunction>
make_selection_view(const boost::shared_ptr<strata::ReservoirSelectionTopology>& selection,
                    const boost::shared_ptr<ArrayGridFunction<double>>& backing)
{
    if (!selection || !backing)
        throw std::invalid_argument("a selection view needs a selection and a backing grid function");
    if (backing->count != selection->number_of_selected_cells)
        throw std::invalid_argument("the backing grid function has " + std::to_string(backing->count) +
                                    " elements, the selection " +
                                    std::to_string(selection->number_of_selected_cells) + " cells");
    typedef SelectionViewGridFunction::value_type value_type;
    static_assert(std::is_same<value_type, double>::value, "selection views hold doubles");
    typedef ViewGridFunctionImpl<ArrayGridFunction<double>, is::Writable> Impl;
    typedef GenHandleMapper<OriginalToSelectionMapperImpl<3, hmt::CellHandleMapper>,
                            OriginalToSelectionMapperTraits<3, hmt::CellHandleMapper>>
        Mapper;
    return boost::shared_ptr<SelectionViewGridFunction>(
        new SelectionViewGridFunction(Impl(backing), Mapper(*selection)));
}

template class GridFunction<ArrayGridFunctionImpl<Array<int, 1>, ArrayTraits<Array<int, 1>>>,
                            GenHandleMapper<PassHandleMapperImpl, PassAcceptableHandleMappingsTrait>,
                            is::Writable>;
template class GridFunction<ArrayGridFunctionImpl<Array<float, 1>, ArrayTraits<Array<float, 1>>>,
                            GenHandleMapper<PassHandleMapperImpl, PassAcceptableHandleMappingsTrait>,
                            is::Writable>;
template class GridFunction<ArrayGridFunctionImpl<Array<double, 1>, ArrayTraits<Array<double, 1>>>,
                            GenHandleMapper<PassHandleMapperImpl, PassAcceptableHandleMappingsTrait>,
                            is::Writable>;
template class GridFunction<
    ViewGridFunctionImpl<ArrayGridFunction<double>, is::Writable>,
    GenHandleMapper<OriginalToSelectionMapperImpl<3, hmt::CellHandleMapper>,
                    OriginalToSelectionMapperTraits<3, hmt::CellHandleMapper>>,
    is::Writable>;

} // namespace core

namespace strata {

ReservoirTopology::ReservoirTopology(std::uint16_t nI_, std::uint16_t nJ_, std::uint16_t nK_)
    : nI(nI_), nJ(nJ_), nK(nK_)
{
}

ReservoirTopology::~ReservoirTopology() = default;

std::uint64_t ReservoirTopology::number_of_cells() const
{
    return std::uint64_t(nI) * nJ * nK;
}

ReservoirSelectionTopology::ReservoirSelectionTopology(ReservoirTopologyPtr parent, std::vector<CellIJK> cells)
    : parent_topology(std::move(parent)), nI(0), nJ(0), nK(0), number_of_selected_cells(cells.size()),
      selected_cells(nullptr), cell_to_selection(nullptr), m_cells(std::move(cells))
{
    if (!parent_topology)
        throw std::invalid_argument("a selection needs a parent topology");
    nI = parent_topology->nI;
    nJ = parent_topology->nJ;
    nK = parent_topology->nK;
    for (std::size_t s = 0; s < m_cells.size(); ++s) {
        const CellIJK& c = m_cells[s];
        if (c.i >= nI || c.j >= nJ || c.k >= nK)
            throw std::invalid_argument("selected cell " + std::to_string(s) + " = (" + std::to_string(c.i) + ", " +
                                    std::to_string(c.j) + ", " + std::to_string(c.k) +
                                    ") lies outside the grid of " + std::to_string(nI) + " x " +
                                    std::to_string(nJ) + " x " + std::to_string(nK) + " cells");
    }
    m_cellToSelection.assign(parent_topology->number_of_cells(), not_selected);
    for (std::size_t s = m_cells.size(); s-- > 0;) {
        const CellIJK& c = m_cells[s];
        m_cellToSelection[c.i + std::uint64_t(nI) * (c.j + std::uint64_t(nJ) * c.k)] = std::int64_t(s);
    }
    selected_cells = m_cells.data();
    cell_to_selection = m_cellToSelection.data();
}

ReservoirSelectionTopology::~ReservoirSelectionTopology() = default;

std::uint64_t ReservoirSelectionTopology::number_of_cells() const
{
    return number_of_selected_cells;
}

} // namespace strata
} // namespace tessel
