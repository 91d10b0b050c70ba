#pragma once

// The call that asks the liquid cooling service to create its sensors.

#include <atomic>
#include <cstdint>

namespace Platform
{

// Set once CreateSensors has succeeded; the closing loop then stops asking.
extern std::atomic<bool> liquidCoolingApplied;

// CreateSensors(type) at com.halvex.liquid_cooling. The caller holds
// dbusClientMutex. Throws hwtopod::dbus::Error.
void setLiquidCooling(std::uint32_t type);

} // namespace Platform
