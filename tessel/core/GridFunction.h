#pragma once

#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "tessel/core/IGridFunction.h"

namespace tessel {

// Access tags.
namespace is {
struct Writable {};
} // namespace is

namespace strata {
class ReservoirSelectionTopology;
}

namespace core {

// Element conversions used by the virtual accessors.  Conversions to an
// integer saturate (NaN gives 0) so that no input value leads to undefined
// behaviour.
template <class T>
inline T element_from_double(double v)
{
    if constexpr (std::is_integral<T>::value) {
        if (v != v)
            return 0;
        if (v <= static_cast<double>(std::numeric_limits<T>::min()))
            return std::numeric_limits<T>::min();
        if (v >= static_cast<double>(std::numeric_limits<T>::max()))
            return std::numeric_limits<T>::max();
        return static_cast<T>(v);
    } else {
        return static_cast<T>(v);
    }
}

template <class T>
inline int int_from_element(T v)
{
    if constexpr (std::is_same<T, int>::value)
        return v;
    else
        return element_from_double<int>(static_cast<double>(v));
}

// Contiguous storage of Dim-dimensional data; only the 1-D form exists.
template <class T, int Dim>
struct Array;

template <class T>
struct Array<T, 1>
{
    typedef T value_type;

    T* data;             // first element; does not move while the array lives
    std::uint64_t count; // number of elements

    Array() : data(nullptr), count(0) {}
    explicit Array(std::vector<T> values)
        : data(nullptr), count(values.size()), m_storage(std::move(values))
    {
        data = m_storage.data();
    }
    // Elements that live elsewhere: `keeper` keeps them alive and is released
    // when the array goes, after the array has let go of them.
    Array(T* elements, std::uint64_t n, boost::shared_ptr<void> keeper)
        : data(elements), count(n), m_keeper(std::move(keeper))
    {
    }
    Array(Array&& other) noexcept
        : data(nullptr), count(other.count), m_storage(std::move(other.m_storage)),
          m_keeper(std::move(other.m_keeper))
    {
        data = m_keeper ? other.data : m_storage.data();
        other.data = nullptr;
        other.count = 0;
    }
    Array(const Array&) = delete;
    Array& operator=(const Array&) = delete;
    Array& operator=(Array&&) = delete;
    ~Array()
    {
        // Releasing the keeper may run code of whoever owns the elements (a
        // Python object's finaliser, say): by then this array holds none.
        data = nullptr;
        count = 0;
        boost::shared_ptr<void> keeper;
        keeper.swap(m_keeper);
    }

    // Whether the elements belong to a keeper rather than to this array.
    bool borrowed() const { return static_cast<bool>(m_keeper); }

private:
    std::vector<T> m_storage;
    boost::shared_ptr<void> m_keeper;
};

template <class A>
struct ArrayTraits
{
    typedef typename A::value_type value_type;
};

// Storage of a grid function held in one Array.
template <class A, class Traits>
class ArrayGridFunctionImpl : public A
{
public:
    typedef typename Traits::value_type value_type;

    explicit ArrayGridFunctionImpl(A array) : A(std::move(array)) {}

    std::uint64_t size() const { return this->count; }
    value_type read(handle h) const { return this->data[h]; }
    void write(handle h, value_type v) { this->data[h] = v; }
};

// Storage of a grid function that views the elements of another (array) grid
// function; the view keeps its backing grid function alive.
template <class A, class Access>
class ViewGridFunctionImpl
{
public:
    typedef typename A::value_type value_type;

    A* backing_array;

    explicit ViewGridFunctionImpl(boost::shared_ptr<A> backing)
        : backing_array(backing.get()), m_backing(std::move(backing))
    {
    }

    const boost::shared_ptr<A>& backing() const { return m_backing; }

    std::uint64_t size() const { return backing_array->count; }
    value_type read(handle h) const { return backing_array->data[h]; }
    void write(handle h, value_type v) { backing_array->data[h] = v; }

private:
    boost::shared_ptr<A> m_backing;
};

// Handle mappers: how a grid function relates positions of an original grid
// to its own elements.
template <class Impl, class Traits>
class GenHandleMapper : public Impl
{
public:
    using Impl::Impl;
    GenHandleMapper() = default;
};

struct PassAcceptableHandleMappingsTrait
{
};

// Identity mapping: element h is position h.
struct PassHandleMapperImpl
{
    handle map(handle h) const { return h; }
};

namespace hmt {
struct CellHandleMapper
{
};
} // namespace hmt

template <int Dim, class HMT>
struct OriginalToSelectionMapperTraits
{
};

template <int Dim, class HMT>
class OriginalToSelectionMapperImpl;

// Maps the cells (i, j, k) of the original grid to positions in a selection.
// The table holds one entry per cell of the grid, at i + stride_j * j +
// stride_k * k; cells outside the selection hold `not_selected`.
template <>
class TESSEL_API OriginalToSelectionMapperImpl<3, hmt::CellHandleMapper>
{
public:
    static constexpr std::uint64_t not_selected = ~std::uint64_t(0);

    std::uint64_t* selection_table;
    std::uint64_t stride_k;
    std::uint16_t stride_j;
    std::uint64_t table_size; // entries in selection_table: one per cell of the grid

    explicit OriginalToSelectionMapperImpl(const strata::ReservoirSelectionTopology& selection);
    OriginalToSelectionMapperImpl(OriginalToSelectionMapperImpl&& other) noexcept;
    OriginalToSelectionMapperImpl(const OriginalToSelectionMapperImpl&) = delete;
    OriginalToSelectionMapperImpl& operator=(const OriginalToSelectionMapperImpl&) = delete;

    std::uint64_t map(std::uint16_t i, std::uint16_t j, std::uint16_t k) const
    {
        return selection_table[i + stride_j * std::uint64_t(j) + stride_k * k];
    }

private:
    std::vector<std::uint64_t> m_table;
};

// A concrete grid function: storage Impl, handle mapping Mapper, access tag.
// Elements of type T are read and written as T, as double and as int.
template <class Impl, class Mapper, class Access>
class TESSEL_API GridFunction
    : public IWritableTypeGridFunction<typename Impl::value_type, typename Impl::value_type>,
      public Impl,
      public Mapper
{
public:
    typedef typename Impl::value_type value_type;

    GridFunction(Impl impl, Mapper mapper) : Impl(std::move(impl)), Mapper(std::move(mapper)) {}
    ~GridFunction() override;

    GridFunction(const GridFunction&) = delete;
    GridFunction& operator=(const GridFunction&) = delete;

    std::uint64_t number_of_elements() const override { return Impl::size(); }
    double get_double(handle h) const override { return static_cast<double>(Impl::read(h)); }
    int get_int(handle h) const override { return int_from_element(Impl::read(h)); }
    void set_double(handle h, double value) override
    {
        Impl::write(h, element_from_double<value_type>(value));
    }
    void set_value(handle h, value_type value) override { Impl::write(h, value); }
};

template <class Impl, class Mapper, class Access>
GridFunction<Impl, Mapper, Access>::~GridFunction() = default;

// The array grid function of T: one contiguous buffer of T.
template <class T>
using ArrayGridFunction =
    GridFunction<ArrayGridFunctionImpl<Array<T, 1>, ArrayTraits<Array<T, 1>>>,
                 GenHandleMapper<PassHandleMapperImpl, PassAcceptableHandleMappingsTrait>,
                 is::Writable>;

// A view with one element per selected cell over an array grid function of
// double, with a table from grid cells to selection positions.
using SelectionViewGridFunction =
    GridFunction<ViewGridFunctionImpl<ArrayGridFunction<double>, is::Writable>,
                 GenHandleMapper<OriginalToSelectionMapperImpl<3, hmt::CellHandleMapper>,
                                 OriginalToSelectionMapperTraits<3, hmt::CellHandleMapper>>,
                 is::Writable>;

template <class T>
boost::shared_ptr<ArrayGridFunction<T>> make_array_grid_function(std::vector<T> values)
{
    typedef typename ArrayGridFunction<T>::value_type value_type;
    static_assert(std::is_same<value_type, T>::value, "array grid function of T holds T");
    typedef ArrayGridFunctionImpl<Array<T, 1>, ArrayTraits<Array<T, 1>>> Impl;
    typedef GenHandleMapper<PassHandleMapperImpl, PassAcceptableHandleMappingsTrait> Mapper;
    return boost::shared_ptr<ArrayGridFunction<T>>(
        new ArrayGridFunction<T>(Impl(Array<T, 1>(std::move(values))), Mapper()));
}

// An array grid function over `count` elements at `data`, which `keeper`
// keeps alive for as long as the grid function lives.
template <class T>
boost::shared_ptr<ArrayGridFunction<T>> make_array_grid_function(T* data, std::uint64_t count,
                                                                 boost::shared_ptr<void> keeper)
{
    typedef ArrayGridFunctionImpl<Array<T, 1>, ArrayTraits<Array<T, 1>>> Impl;
    typedef GenHandleMapper<PassHandleMapperImpl, PassAcceptableHandleMappingsTrait> Mapper;
    return boost::shared_ptr<ArrayGridFunction<T>>(
        new ArrayGridFunction<T>(Impl(Array<T, 1>(data, count, std::move(keeper))), Mapper()));
}

// The backing grid function must hold one value per selected cell
// (std::invalid_argument otherwise).
TESSEL_API boost::shared_ptr<SelectionViewGridFunction>
make_selection_view(const boost::shared_ptr<strata::ReservoirSelectionTopology>& selection,
                    const boost::shared_ptr<ArrayGridFunction<double>>& backing);

extern template class GridFunction<ArrayGridFunctionImpl<Array<int, 1>, ArrayTraits<Array<int, 1>>>,
                                   GenHandleMapper<PassHandleMapperImpl, PassAcceptableHandleMappingsTrait>,
                                   is::Writable>;
extern template class GridFunction<ArrayGridFunctionImpl<Array<float, 1>, ArrayTraits<Array<float, 1>>>,
                                   GenHandleMapper<PassHandleMapperImpl, PassAcceptableHandleMappingsTrait>,
                                   is::Writable>;
extern template class GridFunction<ArrayGridFunctionImpl<Array<double, 1>, ArrayTraits<Array<double, 1>>>,
                                   GenHandleMapper<PassHandleMapperImpl, PassAcceptableHandleMappingsTrait>,
                                   is::Writable>;
extern template class GridFunction<
    ViewGridFunctionImpl<ArrayGridFunction<double>, is::Writable>,
    GenHandleMapper<OriginalToSelectionMapperImpl<3, hmt::CellHandleMapper>,
                    OriginalToSelectionMapperTraits<3, hmt::CellHandleMapper>>,
    is::Writable>;

} // namespace core
} // namespace tessel
