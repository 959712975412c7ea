#pragma once

#include <nanobind/nanobind.h>

namespace kavra {
namespace engine {

// Adds cell_geometry to the engine module.
void RegisterGeometry(nanobind::module_& m);

} // namespace engine
} // namespace kavra
