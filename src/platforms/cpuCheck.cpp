// The CPUs are compared with CPU 1; a missing CPU 1 or a different CPU
// withdraws the permission to power on.

#include "dbus/bus.hpp"
#include "dbus/client.hpp"
#include "platformBase.hpp"
#include "powerVote.hpp"
#include "probeHelpers.hpp"

#include <optional>

namespace Platform
{

using hwtopod::ConfigMismatchKind;
using hwtopod::DeviceType;
using hwtopod::readVpdNumber;

void powerVote(bool on)
{
    const char* value = on ? "on" : "off";
    try
    {
        const auto reply = hwtopod::dbus::callMethodInt32(
            "com.halvex.pwrmgt", "/com/halvex/pwrmgt/permission",
            "com.halvex.Pwrmgt.Policy", "Vote",
            {std::string("com.halvex.hwtopod"), std::uint32_t{1}, on});
        if (reply == 0)
        {
            logInfo() << "power vote for vote id(" << 1
                      << ") success, vote value: " << value;
        }
        else
        {
            logWarning() << "power vote for vote id(" << 1
                         << ") fail, vote value: " << value;
        }
    }
    catch (const std::exception& e)
    {
        logError() << "power permission Exception:" << e.what();
    }
}

namespace
{
// The text of a property; another type counts as empty text.
std::string textOf(const VpdProperties& vpd, const char* name)
{
    const auto* text = std::get_if<std::string>(&vpd.at(name));
    return text == nullptr ? std::string() : *text;
}

// What makes two CPUs alike.
struct CpuIdentity
{
    std::uint64_t flags = 0;
    std::uint64_t cpuId = 0;
    std::uint64_t stepping = 0;
    std::string skuNumber;
    std::string sSpec;
};

// The identity a CPU's VPD gives, none when a part of it is missing.
std::optional<CpuIdentity> identityOf(const VpdProperties& vpd)
{
    for (const char* key : {"CoreFeatureFlags", "CpuId", "Stepping",
                            "SkuNumber", "SSpecOrQdfNumber"})
    {
        if (!vpd.contains(key))
        {
            return std::nullopt;
        }
    }
    return CpuIdentity{
        readVpdNumber(vpd.at("CoreFeatureFlags")),
        readVpdNumber(vpd.at("CpuId")), readVpdNumber(vpd.at("Stepping")),
        textOf(vpd, "SkuNumber"), textOf(vpd, "SSpecOrQdfNumber")};
}

void reportCpu1Missing(Base::DiscoveryState::CpuCheckState& state)
{
    hwtopod::sendConfigMismatchEvent(
        DeviceType::Cpu, ConfigMismatchKind::ProcessorConfiguration, "1", "");
    logInfo() << "CPU 1 is not installed, set CPU 1 configuration mismatch ";
    powerVote(false);
    state.cpuPowerDenied = true;
}

void storeCpu1(Base::DiscoveryState::CpuCheckState& state,
               const CpuIdentity& cpu)
{
    state.cpu1CoreFeatureFlags = cpu.flags;
    state.cpu1CpuId = cpu.cpuId;
    state.cpu1Stepping = cpu.stepping;
    state.cpu1SkuNumber = cpu.skuNumber;
    state.cpu1SSpecOrQdfNumber = cpu.sSpec;
    state.cpu1Stored = true;
    logInfo() << "CPU 1 is installed, store CPU 1 configuration ";
}

// An installed CPU other than CPU 1, held against CPU 1.
void compareWithCpu1(Base::DiscoveryState::CpuCheckState& state,
                     std::uint64_t location, const CpuIdentity& cpu)
{
    const std::string number = std::to_string(location);
    if (cpu.cpuId == state.cpu1CpuId && cpu.stepping == state.cpu1Stepping &&
        cpu.skuNumber == state.cpu1SkuNumber &&
        cpu.sSpec == state.cpu1SSpecOrQdfNumber)
    {
        logInfo() << "CPU " << location << "is installed and the same to CPU 1";
    }
    else
    {
        hwtopod::sendConfigMismatchEvent(
            DeviceType::Cpu, ConfigMismatchKind::ProcessorConfiguration, number,
            "");
        logWarning() << "CPU " << location
                     << " installed and different to CPU 1, set CPU "
                     << location << " configuration mismatch";
        powerVote(false);
        state.cpuPowerDenied = true;
    }
    if (!state.cpuFeatureMismatchSent &&
        cpu.flags != state.cpu1CoreFeatureFlags)
    {
        hwtopod::sendConfigMismatchEvent(
            DeviceType::Cpu, ConfigMismatchKind::ProcessorFeature, number, "");
        logWarning() << "CPU " << location
                     << " is installed and feature flags different to CPU 1, "
                        "set CPU feature mismatch";
        state.cpuFeatureMismatchSent = true;
    }
}
} // namespace

void Base::probeCpu(const std::string& path)
{
    auto& state = discovery.cpuCheck;
    if (!state.cpuPowerDenied)
    {
        powerVote(true);
    }
    auto found = discovery.vpdObjects.find(path);
    if (found == discovery.vpdObjects.end())
    {
        logWarning() << "probeCpu: path " << path << " was not found";
        return;
    }
    const auto& vpd = found->second;
    const std::string name = probe::vpdText(vpd, "VpdName");
    if (name.find("CPU") == std::string::npos)
    {
        return;
    }
    if (!vpd.contains("VpdLocation") || !vpd.contains("VpdFound"))
    {
        logWarning() << "probeCpu: VpdLocation or VpdFound not found";
        return;
    }
    logInfo() << "Detecting CPU : " << name;
    const auto location = readVpdNumber(vpd.at("VpdLocation"));
    const auto installed = readVpdNumber(vpd.at("VpdFound"));
    if (installed == 0 && location == 1)
    {
        reportCpu1Missing(state);
    }
    const auto cpu = identityOf(vpd);
    if (!cpu)
    {
        return;
    }
    logInfo() << "Check CPU device " << location;
    if (installed != 0 && location == 1)
    {
        storeCpu1(state, *cpu);
        return;
    }
    if (definition.maxCpu <= 1)
    {
        return;
    }
    if (installed == 0)
    {
        logWarning() << "CPU " << location << " is not installed";
        return;
    }
    if (!state.cpu1Stored)
    {
        logWarning() << "CPU " << location << " is installed but no CPU 1";
        return;
    }
    compareWithCpu1(state, location, *cpu);
}

} // namespace Platform
