// Fault monitoring, device presence and chassis intrusion: not built yet.
#include "platformHighvol.hpp"

namespace Platform
{

void Base::powerFaultDetect() {}
void Base::gpioMonitor(const std::vector<hwtopod::FpgaGpioEntry>& /*rows*/) {}
void Base::setDevicePresence() {}
void Base::remedyChassisCloseEvent() {}
void Highvol::powerFaultMonitor() {}

} // namespace Platform
