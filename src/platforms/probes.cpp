// Board probes: not built yet.
#include "platformHighvol.hpp"

namespace Platform
{

void Base::probeVpdd(const std::string& /*path*/) {}
void Base::probeBpVpddStatic(const std::string& /*path*/,
                             std::uint64_t /*posId*/)
{}
void Base::probeRiserVpddStatic(const std::string& /*path*/,
                                std::uint64_t /*posId*/)
{}
void Base::probeChassisMidplaneBaseOnPdbStatic(const std::string& /*path*/,
                                               std::uint64_t /*posId*/)
{}
void Base::probeCpu(const std::string& /*path*/) {}
void Highvol::probeCachedVpdd() {}
void Highvol::probeBpVpddDynamic(const std::string& /*path*/,
                                 std::uint64_t /*posId*/)
{}
void Highvol::probeRiserVpddDynamic(const std::string& /*path*/,
                                    std::uint64_t /*posId*/)
{}
void Highvol::checkRiserConnection(const nlohmann::json& /*riser*/,
                                   std::string /*riserName*/)
{}

} // namespace Platform
