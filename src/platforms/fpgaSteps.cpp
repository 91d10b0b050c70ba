// FPGA read-out of the hardware thread: not built yet.
#include "platformHighvol.hpp"

namespace Platform
{

void Highvol::waitForFpga() {}
void Highvol::fpgaDump() {}
void Highvol::hwDeviceDiscovery() {}
void Highvol::readRiserTopology() {}
void Highvol::checkPresence() {}
void Highvol::getSkuConfig() {}
void Highvol::getFpgaFanInfo() {}
void Highvol::refreshFpgaBlock12() {}
void Highvol::applyPlatformCoolingSettings() {}
bool Base::getFpgaDeviceState(std::uint32_t /*key*/)
{
    return false;
}

} // namespace Platform
