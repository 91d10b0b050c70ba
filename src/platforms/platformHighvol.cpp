#include "platformHighvol.hpp"

namespace Platform
{

Highvol::Highvol(const MachineDefinition& machine) : Base(machine)
{
    gpioChipName = "gpiochip6";
    skuNames["Front"] = "NONE";
    skuNames["Rear"] = "NONE";
}

Highvol::~Highvol() = default;

} // namespace Platform
