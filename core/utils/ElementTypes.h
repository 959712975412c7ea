#pragma once

namespace kavra {

// A list of element types, for code made once per type in it: the variants
// of a calculation on array grid functions (in the order tried), the column
// reductions' switches over NumPy type numbers.
template <class... T>
struct ElementTypes
{
};

} // namespace kavra
