#include "platformHighvol.hpp"

namespace Platform
{

Highvol::Highvol()
{
    maxCpu = 2;
    maxDimm = 32;
    maxPsu = 2;
    maxOcp = 2;
    maxRearM2 = 1;
    maxInternalM2 = 1;
    gpioChipName = "gpiochip6";
}

Highvol::~Highvol()
{
    stopThreads();
}

} // namespace Platform
