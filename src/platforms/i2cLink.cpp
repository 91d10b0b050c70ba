#include "i2cLink.hpp"

#include "common/logging.hpp"
#include "common/paths.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

namespace hwtopod
{

namespace
{
// True when a relative path has a ".." element left, which could lead the
// link out of /sys.
bool climbsUp(const std::filesystem::path& relative)
{
    for (const auto& element : relative)
    {
        if (element == "..")
        {
            return true;
        }
    }
    return false;
}

// The /dev link of a device type and index; none for a type without one.
std::optional<std::string> linkNameOf(DeviceType type, unsigned index)
{
    switch (type)
    {
        case DeviceType::Backplane:
            return "/dev/bp" + std::to_string(index) + "_i2c";
        case DeviceType::PcieCard:
            return "/dev/pcie_slot" + std::to_string(index) + "_i2c";
        case DeviceType::Midplane:
            return "/dev/midplane" + std::to_string(index) + "_i2c";
        default:
            return std::nullopt;
    }
}

// The device directory of an I2C bus below /sys, placed below the root;
// none, with the error line, when the bus is not there or its entry leads
// out of /sys.
std::optional<std::string> busTarget(const Root& root, unsigned bus)
{
    const std::string source =
        "/sys/bus/i2c/devices/i2c-" + std::to_string(bus);
    std::error_code error;
    if (!std::filesystem::exists(root.path(source), error))
    {
        logError() << "[ERR] CANNOT FIND THE PATH : " << source;
        return std::nullopt;
    }

    // In sysfs the bus entry is a relative link such as
    // "../../../devices/platform/x/i2c-7"; its leading "../" parts are
    // dropped and the rest is taken below /sys.
    std::string relative = std::filesystem::read_symlink(root.path(source));
    while (relative.find("../") != std::string::npos)
    {
        relative.erase(0, 3);
    }
    if (climbsUp(relative) || relative.starts_with('/'))
    {
        logError() << "[ERR] CANNOT FIND THE PATH : " << source << " -> "
                   << relative;
        return std::nullopt;
    }
    // The link's target is an absolute path, and it is placed below
    // the root like every other path, so that in a sandbox the link
    // resolves to the sandbox's /sys and not to the host's.
    return root.path("/sys/" + relative);
}
} // namespace

bool createI2cLink(const Root& root, DeviceType type, unsigned index,
                   unsigned bus)
{
    const auto linkName = linkNameOf(type, index);
    if (!linkName)
    {
        logInfo() << "Device does not support i2c link creation";
        return false;
    }
    const auto target = busTarget(root, bus);
    if (!target)
    {
        return false;
    }

    const std::string link = root.path(*linkName);
    // exists() follows the link: a link whose target has gone counts as not
    // there, is left, and makes the creation below fail.
    if (std::filesystem::exists(link))
    {
        std::filesystem::remove(link);
    }
    std::error_code error;
    std::filesystem::create_directory_symlink(*target, link, error);
    if (error)
    {
        logCritical() << "[ERR] CANNOT CREATE A SYMBOLIC LINK : "
                      << error.message();
        return false;
    }
    return true;
}

} // namespace hwtopod
