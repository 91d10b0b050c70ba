#pragma once

#include "common/paths.hpp"

#include <cstdint>
#include <string>
#include <string_view>

namespace Platform
{

// What a machine is, fixed when it is built: one constant of this type per
// machine class, handed to the platform object and kept there unchanged.
// A literal type, so a machine's definition and the checks on it are
// evaluated by the compiler. The defaults are those of a machine that names
// nothing.
struct MachineDefinition
{
    std::string_view codeName{};
    std::string_view platformName = "Platform Prototype";
    // Rule and PSU files are names in hwtopod::dataDirectory, empty for
    // none; dataPath gives the path the daemon reads.
    std::string_view backplanesFile = "bhs_backplanes.json";
    std::string_view risersFile{};
    std::string_view powerBackplanesFiles{};
    std::string_view psuConfigFiles{};
    std::uint32_t maxCpu = 1;
    std::uint32_t maxDimm = 8;
    std::uint32_t maxPsu = 0;
    std::uint32_t maxPci = 0;
    std::uint32_t maxOcp = 0;
    std::uint32_t maxFanMod = 0;
    std::uint32_t maxFrontBp = 0;
    std::uint32_t maxRearBp = 0;
    std::uint32_t maxMiddleBp = 0;
    std::uint32_t maxFrontM2 = 0;
    std::uint32_t maxRearM2 = 0;
    std::uint32_t maxInternalM2 = 0;
    bool bpProbeStatic = true;
    bool riserProbeStatic = true;
    bool midplaneProbeEnabled = false;
    bool bpTypeKeyed = false;
    std::string_view daisyCardVpdPath{};
    std::string_view daisyCardFruName{};
    std::string_view miniVersion = "01W";
    std::int32_t chassisHeightU = 0;

    // The path of one of the files above before rootPath; empty for none.
    static std::string dataPath(std::string_view fileName)
    {
        return fileName.empty() ? std::string() : hwtopod::dataFile(fileName);
    }
};

} // namespace Platform
