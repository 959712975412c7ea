#pragma once

// The registration steps of the module body, in the order they run.
namespace kavra {
namespace python {

void RegisterBulkVolume();
void RegisterRsFromComponents();

} // namespace python
} // namespace kavra
