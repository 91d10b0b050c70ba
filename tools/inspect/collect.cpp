#include "collectParts.hpp"
#include "common/jsonNumber.hpp"
#include "common/paths.hpp"
#include "dbus/bus.hpp"
#include "dbus/client.hpp"
#include "inspect.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace hwtopod::inspect
{

namespace
{

using Json = nlohmann::json;
using Properties = dbus::AnyProperties;
using ManagedObjects = dbus::AnyObjects;

const std::vector<std::string> resultFiles = {
    "backplanes_found.json", "risers_found.json", "midplanes_found.json"};

// A value of a type without JSON form shows its signature.
Json toJson(const dbus::AnyValue& value)
{
    if (value.signature.empty() || !value.content.is_null())
    {
        return value.content;
    }
    return "<" + value.signature + ">";
}

// Properties of all interfaces of an object, in one map.
Json flatten(const std::map<std::string, Properties>& interfaces)
{
    Json result = Json::object();
    for (const auto& [interface, properties] : interfaces)
    {
        if (interface.starts_with("org.freedesktop.DBus"))
        {
            continue;
        }
        for (const auto& [name, value] : properties)
        {
            result[name] = toJson(value);
        }
    }
    return result;
}

std::string interfacesOf(const std::map<std::string, Properties>& interfaces)
{
    std::string names;
    for (const auto& [interface, properties] : interfaces)
    {
        if (!interface.starts_with("org.freedesktop.DBus"))
        {
            names += names.empty() ? interface : "," + interface;
        }
    }
    return names;
}

// Where /dev/<name> points, with the bus number of an "i2c-N" target.
Json i2cLink(const Root& root, const std::string& name)
{
    const auto link = root.path("/dev/" + name);
    Json result = {{"link", "/dev/" + name}};
    std::error_code error;
    const auto target = std::filesystem::read_symlink(link, error);
    if (error)
    {
        result["target"] = nullptr;
        result["bus"] = nullptr;
        return result;
    }
    result["target"] = target.string();
    const auto leaf = target.filename().string();
    if (leaf.starts_with("i2c-"))
    {
        if (auto bus = decimalInteger<unsigned>(leaf.substr(4)))
        {
            result["bus"] = *bus;
            return result;
        }
    }
    result["bus"] = nullptr;
    return result;
}

// Riser number from an object's properties; 0 when it has none.
unsigned riserSlot(const Json& properties)
{
    auto slot = properties.find("RiserSlot");
    return slot == properties.end() ? 0
                                    : jsonInteger<unsigned>(*slot).value_or(0);
}

// The daemon's objects, and its process when not given; what failed goes to
// errors and failures.
ManagedObjects readObjects(const Options& options, std::optional<pid_t>& pid,
                           Json& errors, Json& failures)
{
    ManagedObjects objects;
    try
    {
        if (!pid)
        {
            pid = static_cast<pid_t>(dbus::callMethodUint32(
                "org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                {options.service}));
        }
        objects = dbus::getAnyManagedObjects(options.service, "/");
    }
    catch (const dbus::Error& e)
    {
        errors.push_back("D-Bus: " + e.name() + ": " + e.message());
        failures.push_back(
            options.service + " is not on the system bus: " + e.message());
    }
    return objects;
}

// A riser's object with its slots' links and what the records say of it.
Json riserEntry(const Root& root, const std::string& name,
                const std::map<std::string, Properties>& interfaces,
                const Json& properties, const Json& events)
{
    const auto slot = riserSlot(properties);
    Json slots = Json::array();
    if (properties.contains("PCIeSlot") && properties["PCIeSlot"].is_array())
    {
        for (const auto& s : properties["PCIeSlot"])
        {
            if (const auto number = jsonInteger<unsigned>(s))
            {
                slots.push_back(
                    {{"slot", *number},
                     {"i2c",
                      i2cLink(root, "pcie_slot" + std::to_string(*number) +
                                        "_i2c")}});
            }
        }
    }
    std::vector<std::string> names = {name.substr(15)};
    if (properties.contains("RiserName") && properties["RiserName"].is_string())
    {
        names.push_back(properties["RiserName"]);
    }
    const bool vpdOnly = fpgaMissed(events, names[0]) ||
                         (names.size() > 1 && fpgaMissed(events, names[1]));
    Json riser = {
        {"path", name},   {"interface", interfacesOf(interfaces)},
        {"riser", slot},  {"properties", properties},
        {"slots", slots}, {"seenBy", vpdOnly ? "VPD only" : "FPGA and VPD"}};
    riser.update(riserIssues(events, slot, names));
    return riser;
}

// What the daemon's objects show, sorted by kind of object.
struct Picture
{
    Json platform = Json::object();
    Json psus = Json::array();
    Json backplaneStatus = Json::object();
    Json presence = nullptr;
    Json risers = Json::array();
    Json backplanes = Json::array();
    Json midplanes = Json::array();

    void addBasecfg(const std::map<std::string, Properties>& interfaces)
    {
        for (const auto& [interface, values] : interfaces)
        {
            if (interface.starts_with("org.freedesktop.DBus"))
            {
                continue;
            }
            auto& target = interface == "com.halvex.hwtopod.status.backplane"
                               ? backplaneStatus
                               : platform;
            for (const auto& [key, value] : values)
            {
                target[key] = toJson(value);
            }
        }
    }

    void add(const Root& root, const std::string& name,
             const std::map<std::string, Properties>& interfaces,
             const Json& events)
    {
        auto properties = flatten(interfaces);
        const Json board = {{"path", name},
                            {"interface", interfacesOf(interfaces)},
                            {"properties", properties}};
        if (name == "/com/halvex/platform/basecfg")
        {
            addBasecfg(interfaces);
        }
        else if (name == "/com/halvex/platform/software/config" ||
                 name == "/com/halvex/platform/hardware/chassis")
        {
            platform.update(properties);
        }
        else if (name == "/com/halvex/platform/hardware/config")
        {
            if (properties.contains("Status"))
            {
                platform["LowSecurityJumper"] = properties["Status"];
            }
        }
        else if (name.starts_with("/com/halvex/platform/hardware/psus/"))
        {
            properties["Interface"] = interfacesOf(interfaces);
            psus.push_back(properties);
        }
        else if (name == "/com/halvex/platform/hardware/device")
        {
            presence = properties;
        }
        else if (name.starts_with("/chassis/riser/"))
        {
            risers.push_back(
                riserEntry(root, name, interfaces, properties, events));
        }
        else if (name.starts_with("/chassis/bp/"))
        {
            backplanes.push_back(board);
            const auto id = properties.contains("BackplaneId")
                                ? jsonInteger<int>(properties["BackplaneId"])
                                : std::nullopt;
            if (id)
            {
                backplanes.back()["i2c"] =
                    i2cLink(root, "bp" + std::to_string(*id) + "_i2c");
            }
        }
        else if (name.starts_with("/chassis/midplane/"))
        {
            midplanes.push_back(board);
        }
    }

    // Risers that only the FPGA's records name have no object.
    void addRisersOnlyFpgaSaw(const Json& events)
    {
        for (const auto slot : risersOnlyFpgaSaw(events))
        {
            Json riser = {
                {"path", nullptr},        {"interface", nullptr},
                {"riser", slot},          {"properties", Json::object()},
                {"slots", Json::array()}, {"seenBy", "FPGA only"}};
            riser.update(riserIssues(events, slot, {}));
            risers.push_back(riser);
        }
    }
};

Json readResultFiles(const Root& root, Json& errors, Json& failures)
{
    Json files = Json::object();
    for (const auto& file : resultFiles)
    {
        // A file that is not there has not been written yet, or not at all
        // on this machine (midplanes); one that is there must be readable.
        const auto path = root.path("/var/configuration/" + file);
        files[file] = nullptr;
        std::error_code error;
        if (!std::filesystem::exists(path, error) && !error)
        {
            continue;
        }
        std::ifstream stream(path);
        try
        {
            if (!stream)
            {
                throw std::runtime_error(std::strerror(errno));
            }
            files[file] = Json::parse(stream);
        }
        catch (const std::exception& e)
        {
            errors.push_back(file + ": " + e.what());
            failures.push_back("cannot read " + path + ": " + e.what());
        }
    }
    return files;
}

} // namespace

Json collect(const Options& options)
{
    Json document = {{"service", {{"name", options.service}}},
                     {"errors", Json::array()}};
    Json& errors = document["errors"];
    Json failures = Json::array();

    std::optional<pid_t> pid = options.pid;
    const auto objects = readObjects(options, pid, errors, failures);
    document["service"]["onBus"] = failures.empty();
    document["service"]["pid"] = pid ? Json(*pid) : Json(nullptr);

    const auto messages = registryMessages(options.root, errors);
    Json events = pid ? journalEvents(*pid, messages, errors) : Json::array();

    Picture picture;
    for (const auto& [path, interfaces] : objects)
    {
        picture.add(options.root, path, interfaces, events);
    }
    picture.addRisersOnlyFpgaSaw(events);
    picture.platform["Psus"] = picture.psus;
    picture.platform["BackplaneStatus"] = picture.backplaneStatus;
    document["platform"] = picture.platform;
    document["risers"] = picture.risers;
    document["backplanes"] = picture.backplanes;
    document["midplanes"] = picture.midplanes;
    document["devicePresence"] = picture.presence;
    document["resultFiles"] = readResultFiles(options.root, errors, failures);
    document["events"] = events;
    document["problems"] = problemsOf(events);
    document["failures"] = failures;
    return document;
}

} // namespace hwtopod::inspect
