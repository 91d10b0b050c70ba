// Rule files and VPD matching: not built yet.
#include "platformHighvol.hpp"

namespace Platform
{

int Base::loadTrd()
{
    return 0;
}
void Base::matchVpdd() {}
void Base::onVpdInterfacesAdded(const std::string& /*path*/,
                                const hwtopod::InterfaceProperties& /*ifs*/)
{}
void Base::waitForVpd() {}
void Base::updateFruName(const std::string& /*path*/,
                         const std::string& /*format*/,
                         hwtopod::DeviceType /*type*/, std::uint8_t /*index*/,
                         const std::string& /*name*/)
{}
void Base::updateProductName() {}

} // namespace Platform
