#pragma once

#include <cstdint>

#include "tessel/Export.h"

namespace tessel {
namespace core {

// A set of cells.  Concrete topologies are reached by run-time casts.
class TESSEL_API ITopology
{
public:
    virtual std::uint64_t number_of_cells() const = 0;
    virtual ~ITopology();
};

} // namespace core
} // namespace tessel
