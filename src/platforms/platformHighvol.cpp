#include "platformHighvol.hpp"

#include <utility>

namespace Platform
{

Highvol::Highvol(Seams seams, const MachineDefinition& machine) :
    Base(std::move(seams), machine)
{
    gpioChipName = "gpiochip6";
}

Highvol::~Highvol()
{
    stopThreads();
}

} // namespace Platform
