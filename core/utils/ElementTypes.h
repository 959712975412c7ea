#pragma once

namespace kavra {

// A list of element types, for code made once per type in it: the variants
// of a calculation on array grid functions (in the order tried), the column
// reductions' switches over NumPy type numbers.
template <class... T>
struct ElementTypes
{
};

// An element type of a calculation's variant in which the inputs are
// arrays of In and the result (the last argument) an array of Out.
template <class In, class Out>
struct Mixed
{
};

// The variants the engine runs a calculation in when its inputs are arrays
// of float: the result an array of double, or of float.  (Arrays of double
// take the calculation's own variants.)  A calculation that offers them
// takes this tag as its first argument.
struct EngineVariants
{
    typedef ElementTypes<Mixed<float, double>, float> Types;
};

} // namespace kavra
