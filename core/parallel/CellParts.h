#pragma once

// The pieces of a cell calculation run in parts: each part is the very
// calculation over its own slice of every argument's buffer, so a cell gets
// the same bits whatever the number of parts.
#include <cstdint>

#include "core/utils/gridfunction_checking.h"

namespace kavra {

// Whether `gf` is an array grid function of T with n elements.
template <class T>
bool IsArrayOf(const GridFunctionPtr& gf, std::uint64_t n);

// Elements [begin, end) of an array grid function of int or double, as an
// array grid function over the same memory that keeps `gf` alive.
GridFunctionPtr Slice(const GridFunctionPtr& gf, std::uint64_t begin, std::uint64_t end);

// The largest number in an array grid function of int, read in `parts`
// parts; INT_MIN when it has no elements.
int LargestRegion(const GridFunctionPtr& regions, unsigned parts);

} // namespace kavra
