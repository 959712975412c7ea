#include "core/parallel/CellParts.h"

#include <algorithm>
#include <climits>
#include <vector>

#include "core/utils/ParallelFor.h"
#include "tessel/core/GridFunction.h"

using tessel::core::ArrayGridFunction;
using tessel::core::make_array_grid_function;

namespace kavra {

template <class T>
bool IsArrayOf(const GridFunctionPtr& gf, std::uint64_t n)
{
    const ArrayGridFunction<T>* array = dynamic_cast<const ArrayGridFunction<T>*>(gf.get());
    return array != nullptr && array->count == n;
}

template bool IsArrayOf<int>(const GridFunctionPtr&, std::uint64_t);
template bool IsArrayOf<double>(const GridFunctionPtr&, std::uint64_t);

namespace {

template <class T>
GridFunctionPtr SliceOf(const GridFunctionPtr& gf, std::uint64_t begin, std::uint64_t end)
{
    ArrayGridFunction<T>* array = dynamic_cast<ArrayGridFunction<T>*>(gf.get());
    if (array == nullptr)
        return GridFunctionPtr();
    return make_array_grid_function<T>(array->data + begin, end - begin, gf);
}

} // namespace

GridFunctionPtr Slice(const GridFunctionPtr& gf, std::uint64_t begin, std::uint64_t end)
{
    GridFunctionPtr slice = SliceOf<double>(gf, begin, end);
    return slice ? slice : SliceOf<int>(gf, begin, end);
}

int LargestRegion(const GridFunctionPtr& regions, unsigned parts)
{
    const ArrayGridFunction<int>& array = dynamic_cast<const ArrayGridFunction<int>&>(*regions);
    std::vector<int> largest(parts, INT_MIN);
    ParallelFor(array.count, parts, [&](unsigned part, std::uint64_t begin, std::uint64_t end) {
        int m = INT_MIN;
        for (std::uint64_t c = begin; c < end; ++c)
            m = std::max(m, array.data[c]);
        largest[part] = m;
    });
    return *std::max_element(largest.begin(), largest.end());
}

} // namespace kavra
