#pragma once

#include <nanobind/nanobind.h>

namespace kavra {
namespace engine {

// Adds equil_region and equil_cells (kavra.equil's native part) to the engine module.
void RegisterEquil(nanobind::module_& m);

} // namespace engine
} // namespace kavra
