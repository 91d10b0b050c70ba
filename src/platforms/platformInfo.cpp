#include "platformInfo.hpp"

#include "common/logging.hpp"
#include "common/names.hpp"
#include "common/paths.hpp"
#include "dbus/client.hpp"
#include "platformHighvol.hpp"

#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace Platform
{

namespace
{
constexpr auto basecfgPath = "/com/halvex/platform/basecfg";
constexpr auto defaultBuildId = "QDM413B";

enum class PsuKey
{
    boolean,
    text,
    number
};

// The optional keys of a PSU element, in the order they are registered.
constexpr auto psuOptionalKeys = std::to_array<std::pair<const char*, PsuKey>>({
    {"BusOwner", PsuKey::boolean},
    {"DeviceIdentifier", PsuKey::text},
    {"BaseAddressCff", PsuKey::number},
    {"BaseAddressCrps", PsuKey::number},
    {"BaseAddressCrpsFru", PsuKey::number},
    {"SlotCount", PsuKey::number},
    {"FruId", PsuKey::number},
    {"FruName", PsuKey::text},
    {"Location", PsuKey::number},
});

} // namespace

std::string readBuildId(const hwtopod::Root& root)
{
    std::ifstream file(root.path("/etc/os-release"));
    std::string line;
    const std::string key = "HALVEX_BUILDID=";
    while (file && std::getline(file, line))
    {
        if (line.rfind(key, 0) != 0)
        {
            continue;
        }
        std::string value = line.substr(key.size());
        auto first = value.find('"');
        if (first == std::string::npos)
        {
            return value;
        }
        auto last = value.rfind('"');
        return last > first ? value.substr(first + 1, last - first - 1) : "";
    }
    return defaultBuildId;
}

std::string miniVersionFor(const std::string& templateVersion,
                           const std::string& buildId)
{
    unsigned number = 0;
    std::size_t digits = 0;
    while (digits < templateVersion.size() && templateVersion[digits] >= '0' &&
           templateVersion[digits] <= '9')
    {
        number = number * 10 +
                 static_cast<unsigned>(templateVersion[digits] - '0');
        ++digits;
    }
    const char letter = templateVersion.size() > 2 ? templateVersion[2] : ' ';

    bool makeEven = false;
    if (buildId.size() < 7)
    {
        std::cout << "invalid firmware build ID = " << buildId << " is detected"
                  << std::endl;
    }
    else
    {
        makeEven = std::string_view("02468").find(buildId[5]) !=
                   std::string_view::npos;
    }

    if (makeEven && number % 2 == 1)
    {
        number = number <= 97 ? 0 : number + 1;
    }
    else if (!makeEven && number % 2 == 0)
    {
        number = number > 0 ? number - 1 : 1;
    }
    char text[16];
    std::snprintf(text, sizeof(text), "%02u", number);
    return std::string(text) + letter;
}

std::optional<PsuObject> psuObject(const nlohmann::json& element)
{
    if (!element.is_object() || !element.contains("Name") ||
        !element.contains("Type"))
    {
        return std::nullopt;
    }
    PsuObject psu;
    psu.name = element.at("Name").get<std::string>();
    psu.type = element.at("Type").get<std::string>();
    // Name is one element below the PSU path and Type one element below
    // "com.halvex.": anything else is refused and the next PSU is published
    // all the same.
    if (!hwtopod::acceptPathElement("PSU Name", psu.name) ||
        !hwtopod::acceptInterfaceElement("PSU Type", psu.type))
    {
        return std::nullopt;
    }
    return psu;
}

namespace
{
// A number converted as the JSON library converts any number to an unsigned
// 64-bit value: a negative integer wraps (-1 is 2^64-1) and a fraction is
// truncated. Only a float that conversion is undefined for (2^64 or more,
// -1 or less, NaN) gives nothing: the caller drops that key alone. A value
// that is no number throws the library's type error, which ends the file.
std::optional<std::uint64_t> psuNumber(const nlohmann::json& value)
{
    if (value.is_number_float())
    {
        const double number = value.get<double>();
        // 2^64 is exact as a double; the comparison also refuses NaN.
        constexpr double limit = 18446744073709551616.0;
        if (!(number > -1.0 && number < limit))
        {
            return std::nullopt;
        }
        return static_cast<std::uint64_t>(number);
    }
    return value.get<std::uint64_t>();
}
} // namespace

void forEachPsuProperty(
    const nlohmann::json& element,
    const std::function<void(const std::string& key,
                             hwtopod::dbus::PropertyValue value)>& add)
{
    for (const auto& [key, kind] : psuOptionalKeys)
    {
        if (!element.contains(key))
        {
            continue;
        }
        const auto& value = element.at(key);
        switch (kind)
        {
            case PsuKey::boolean:
                add(key, value.get<bool>());
                break;
            case PsuKey::text:
                add(key, value.get<std::string>());
                break;
            case PsuKey::number:
                if (auto number = psuNumber(value))
                {
                    add(key, *number);
                }
                else
                {
                    logError()
                        << "PSU " << element.at("Name").get<std::string>()
                        << " key " << key << " dropped: " << value.dump()
                        << " is no unsigned 64-bit number";
                }
                break;
        }
    }
}

void Base::platformInfoInit()
{
    auto revision = hwtopod::dbus::getPropertyValue<std::uint64_t>(
        "com.halvex.vpdd", "/com/halvex/vpdd/HPM_VPD",
        "com.halvex.vpdd.Halvex_Fullv3", "HardwareRevisionLevel");
    if (revision == 0)
    {
        revision = 1;
        logInfo() << "platform use default HardwareRevisionLevel value:" << 1;
    }
    auto interface =
        addDbusInterface(basecfgPath, "com.halvex.hwtopod.hardware");
    if (!interface)
    {
        return;
    }
    interface->registerProperty("PlatformName",
                                std::string(definition.platformName));
    interface->registerProperty("HardwareRevision", revision);
    interface->registerProperty("MaxCpu", definition.maxCpu);
    interface->registerProperty("MaxDimm", definition.maxDimm);
    interface->registerProperty("MaxPsu", definition.maxPsu);
    interface->registerProperty("MaxPci", definition.maxPci);
    interface->registerProperty("MaxOcp", definition.maxOcp);
    interface->registerProperty("MaxFrontBp", definition.maxFrontBp);
    interface->registerProperty("MaxRearBp", definition.maxRearBp);
    interface->registerProperty("MaxMiddleBp", definition.maxMiddleBp);
    interface->registerProperty("MaxFrontM2", definition.maxFrontM2);
    interface->registerProperty("MaxRearM2", definition.maxRearM2);
    interface->registerProperty("MaxInternalM2", definition.maxInternalM2);
    interface->registerProperty("MaxFanMod", definition.maxFanMod);
    interface->initialize();
    logInfo() << "platform information added ";
}

void Highvol::platformInfoInit()
{
    Base::platformInfoInit();
    auto interface =
        addDbusInterface(basecfgPath, "com.halvex.hwtopod.status.backplane");
    if (!interface)
    {
        return;
    }
    const std::uint32_t count =
        definition.maxFrontBp + definition.maxRearBp + definition.maxMiddleBp;
    for (std::uint32_t i = 1; i <= count; ++i)
    {
        const std::string name = "BP_" + std::to_string(i) + "_INSTALLED";
        interface->registerProperty(name, false);
    }
    interface->initialize();
    logInfo() << "platformInfoInit added ";
}

void Base::publishSoftwareConfig()
{
    auto interface = addDbusInterface("/com/halvex/platform/software/config",
                                      "com.halvex.hwtopod.software.config");
    if (!interface)
    {
        logWarning() << "Failed to add interface";
        return;
    }
    const std::string buildId = readBuildId(seams.root);
    const std::string version =
        miniVersionFor(std::string(definition.miniVersion), buildId);
    logInfo() << "BMC version " << buildId;
    logInfo() << "Set mini version:" << version;
    interface->registerProperty("MiniVersion", version);
    interface->initialize();
}

void Base::publishLowSecurityJumper()
{
    const std::string lineName = "LOW_SECURITY_JMP_N";
    try
    {
        auto value = seams.jumper->readOnce(lineName, "securityJump");
        if (!value)
        {
            logWarning() << "GPIO " << lineName << "not found";
            return;
        }
        hwtopod::sendPresentEvent(hwtopod::DeviceType::SecurityJumper,
                                  *value == 0, 0, "", false);
        auto interface =
            addDbusInterface("/com/halvex/platform/hardware/config",
                             "com.halvex.lowSecurityJmp");
        if (interface)
        {
            interface->registerProperty("Status", std::int32_t{*value});
            interface->initialize();
        }
    }
    catch (const std::exception& e)
    {
        logCritical() << "error Low Security Jump Service exception "
                      << e.what();
    }
}

void Base::publishChassisDimension()
{
    const std::string interfaceName =
        "xyz.openbmc_project.Inventory.Decorator.Dimension";
    auto interface = addDbusInterface("/com/halvex/platform/hardware/chassis",
                                      interfaceName);
    if (!interface)
    {
        logWarning() << "Failed to add interface:" << interfaceName;
        return;
    }
    if (definition.chassisHeightU == 0)
    {
        logInfo() << "HeightU is not right. Please init Chassis HeightU first.";
    }
    logInfo() << "Set Chassis HeightU " << definition.chassisHeightU;
    interface->registerProperty("HeightU", definition.chassisHeightU);
    interface->initialize();
}

void Base::publishPsuConfigs()
{
    std::error_code ec;
    const std::string psuConfigFiles =
        MachineDefinition::dataPath(definition.psuConfigFiles);
    const std::string file = rootPath(psuConfigFiles);
    if (psuConfigFiles.empty() ||
        !std::filesystem::exists(std::filesystem::status(file, ec)))
    {
        logWarning() << "[STATE0] CANNOT FIND THE JSON psuConfigFiles, PATH = "
                     << psuConfigFiles;
        return;
    }
    logInfo() << "[STATE0] FIND THE JSON psuConfigFiles, PATH = "
              << psuConfigFiles;
    try
    {
        std::ifstream stream(file);
        auto document = nlohmann::json::parse(stream);
        for (const auto& element : document)
        {
            auto psu = psuObject(element);
            if (!psu)
            {
                continue;
            }
            auto interface = addDbusInterface(
                "/com/halvex/platform/hardware/psus/" + psu->name,
                "com.halvex." + psu->type);
            if (!interface)
            {
                continue;
            }
            interface->registerProperty("Name", psu->name);
            interface->registerProperty("Type", psu->type);
            // Each key is converted as it is registered: a value of the
            // wrong type leaves this interface uninitialised and ends the
            // file here.
            forEachPsuProperty(element,
                               [&](const std::string& key,
                                   hwtopod::dbus::PropertyValue value) {
                interface->registerProperty(key, std::move(value));
            });
            interface->initialize();
        }
    }
    catch (const std::exception& e)
    {
        logCritical() << "Exception in initPsuConfigs : psuConfigFiles "
                      << e.what();
    }
}

} // namespace Platform
