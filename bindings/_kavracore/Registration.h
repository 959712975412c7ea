#pragma once

// The registration steps of the module body, in the order they run.
namespace kavra {
namespace python {

void RegisterDeadOilTables();
void RegisterLiveOilTables();
void RegisterWaterTables();
void RegisterWetGasTables();
void RegisterRock();
void RegisterScalar();
void RegisterRockList();
void RegisterCalculations();
void RegisterColumnReductions();

} // namespace python
} // namespace kavra
