#include "platformHighvol.hpp"

#include <utility>

namespace Platform
{

Highvol::Highvol(Seams seams, const MachineDefinition& machine) :
    Base(std::move(seams), machine)
{
    gpioChipName = "gpiochip6";
    skuNames["Front"] = "NONE";
    skuNames["Rear"] = "NONE";
}

Highvol::~Highvol() = default;

} // namespace Platform
