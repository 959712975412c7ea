#pragma once

// The grid function arguments of the calculations: their pointer types, the
// checked cast that the rock and transmissibility calculations apply to
// each argument, and the refusal of None by the calculations that take grid
// functions as they come.  How a calculation then reaches the elements is
// in core/utils/GridFunctionAccess.h.
#include <string>

#include <boost/shared_ptr.hpp>

#include "core/utils/Precondition.h"
#include "tessel/core/GridFunction.h"

namespace kavra {

typedef boost::shared_ptr<tessel::core::IGridFunction> GridFunctionPtr;
typedef boost::shared_ptr<tessel::core::ITypeGridFunction<double>> DoubleGridFunctionPtr;
typedef boost::shared_ptr<tessel::core::ITypeGridFunction<int>> IntGridFunctionPtr;
typedef boost::shared_ptr<tessel::core::IWritableTypeGridFunction<double, double>> WritableDoubleGridFunctionPtr;

// Cast a grid function argument to the class a calculation requires; a
// grid function of another class (or None) is a failed precondition that
// names the argument.
template <class T>
boost::shared_ptr<T> CheckedGridFunctionCast(const std::string& name, GridFunctionPtr gridFunction)
{
    boost::shared_ptr<T> reservoirGridFunction = boost::dynamic_pointer_cast<T>(gridFunction);
    PRECONDITION(reservoirGridFunction.get()!=0, "The type cast for " << name << " failed!!");
    return reservoirGridFunction;
}

// Calculations that take grid functions as they come refuse None up front,
// before any element is read or written.
inline void CheckGridFunctionGiven(const std::string& name, const GridFunctionPtr& gridFunction)
{
    PRECONDITION(gridFunction.get()!=0, "The grid function " << name << " is None!!");
}

} // namespace kavra
