#include "cooling.hpp"

#include "dbus/client.hpp"

namespace Platform
{

std::atomic<bool> liquidCoolingApplied = false;

void setLiquidCooling(std::uint32_t type)
{
    hwtopod::dbus::callMethod(
        "com.halvex.liquid_cooling", "/com/halvex/liquid_cooling",
        "com.halvex.liquid_cooling", "CreateSensors", {type});
}

} // namespace Platform
