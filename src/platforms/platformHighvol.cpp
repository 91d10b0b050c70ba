#include "platformHighvol.hpp"

#include <utility>

namespace Platform
{

Highvol::Highvol(Seams seams) : Base(std::move(seams))
{
    maxCpu = 2;
    maxDimm = 32;
    maxPsu = 2;
    maxOcp = 2;
    maxRearM2 = 1;
    maxInternalM2 = 1;
    gpioChipName = "gpiochip6";
    skuNames["Front"] = "NONE";
    skuNames["Rear"] = "NONE";
}

Highvol::~Highvol() = default;

} // namespace Platform
