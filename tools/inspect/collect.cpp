#include "common/jsonNumber.hpp"
#include "common/names.hpp"
#include "common/paths.hpp"
#include "events/eventIds.hpp"
#include "events/journalRecords.hpp"
#include "inspect.hpp"

#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-id128.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace hwtopod::inspect
{

namespace
{

using Json = nlohmann::json;
using Properties = std::map<std::string, sdbus::Variant>;
using ManagedObjects =
    std::map<sdbus::ObjectPath, std::map<std::string, Properties>>;

const std::vector<std::string> resultFiles = {
    "backplanes_found.json", "risers_found.json", "midplanes_found.json"};

// The message registry of the daemon's records, installed beside its rule
// files; an empty one, with the reason under errors, when it cannot be read.
Json registryMessages(const Root& root, Json& errors)
{
    const auto path = root.path(dataFile("EventRegistry.1.0.0.json"));
    std::ifstream stream(path);
    if (!stream)
    {
        errors.push_back(path + ": " + std::strerror(errno));
        return Json::object();
    }
    try
    {
        auto messages = Json::parse(stream).at("Messages");
        if (messages.is_object())
        {
            return messages;
        }
    }
    catch (const Json::exception& e)
    {
        errors.push_back(path + ": " + e.what());
        return Json::object();
    }
    errors.push_back(path + ": no message table");
    return Json::object();
}

template <typename T>
Json take(const sdbus::Variant& value)
{
    return Json(value.get<T>());
}

Json toJson(const sdbus::Variant& value)
{
    static const std::map<std::string, Json (*)(const sdbus::Variant&)>
        readers = {
            {"s", take<std::string>},
            {"o", take<std::string>},
            {"b", take<bool>},
            {"y", take<std::uint8_t>},
            {"n", take<std::int16_t>},
            {"q", take<std::uint16_t>},
            {"i", take<std::int32_t>},
            {"u", take<std::uint32_t>},
            {"x", take<std::int64_t>},
            {"t", take<std::uint64_t>},
            {"d", take<double>},
            {"as", take<std::vector<std::string>>},
            {"ab", take<std::vector<bool>>},
            {"ay", take<std::vector<std::uint8_t>>},
            {"ai", take<std::vector<std::int32_t>>},
            {"au", take<std::vector<std::uint32_t>>},
            {"ax", take<std::vector<std::int64_t>>},
            {"at", take<std::vector<std::uint64_t>>},
            {"ad", take<std::vector<double>>},
        };
    if (value.isEmpty())
    {
        return nullptr;
    }
    auto reader = readers.find(value.peekValueType());
    if (reader == readers.end())
    {
        return "<" + std::string(value.peekValueType()) + ">";
    }
    return reader->second(value);
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

// Realtime microseconds at which a process started; 0 when unknown.
std::uint64_t processStart(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(stat, text))
    {
        return 0;
    }
    // Fields after the command name, which is in parentheses.
    std::istringstream rest(text.substr(text.rfind(')') + 2));
    std::string field;
    std::uint64_t ticks = 0;
    for (int index = 3; rest >> field; ++index)
    {
        if (index == 22)
        {
            ticks = decimalInteger<std::uint64_t>(field).value_or(0);
            break;
        }
    }
    timespec now{};
    timespec boot{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    ::clock_gettime(CLOCK_BOOTTIME, &boot);
    const auto toMicro = [](const timespec& t) {
        return static_cast<std::uint64_t>(t.tv_sec) * 1000000ULL +
               static_cast<std::uint64_t>(t.tv_nsec) / 1000ULL;
    };
    const auto hz = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    const auto bootedAt = toMicro(now) - toMicro(boot);
    // One tick of slack: the start time is rounded down to a tick.
    return bootedAt + ticks * 1000000ULL / hz - 1000000ULL / hz;
}

// One Redfish record as the report shows it, its text from the registry.
Json eventOf(JournalFields& fields, const Json& messages)
{
    const auto shortId = shortEventId(fields["REDFISH_MESSAGE_ID"]);
    Json event = {{"id", shortId}, {"args", nullptr}, {"priority", nullptr}};
    auto args = fields.find("REDFISH_MESSAGE_ARGS");
    std::vector<std::string> argList;
    if (args != fields.end())
    {
        argList = splitEventArguments(args->second);
        event["args"] = args->second;
    }
    if (auto priority = decimalInteger<int>(fields["PRIORITY"]))
    {
        event["priority"] = *priority;
    }
    const auto message = messages.find(shortId);
    const auto known = message != messages.end();
    event["text"] = describeEvent(known ? *message : Json(), argList);
    event["severity"] = known ? message->value("MessageSeverity", Json())
                              : Json();
    // An event the registry does not know is shown with the problems.
    event["problem"] = event["severity"] != "OK";
    return event;
}

// The daemon's Redfish records: this process, this boot, since it started.
Json journalEvents(pid_t pid, const Json& messages, Json& errors)
{
    Json events = Json::array();
    sd_journal* journal = nullptr;
    if (sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY) < 0)
    {
        errors.push_back("cannot open the journal");
        return events;
    }
    const auto pidMatch = "_PID=" + std::to_string(pid);
    sd_journal_add_match(journal, pidMatch.c_str(), 0);
    sd_id128_t boot{};
    if (sd_id128_get_boot(&boot) >= 0)
    {
        char text[SD_ID128_STRING_MAX];
        const auto bootMatch =
            "_BOOT_ID=" + std::string(sd_id128_to_string(boot, text));
        sd_journal_add_match(journal, bootMatch.c_str(), 0);
    }
    const auto since = processStart(pid);
    if (since != 0)
    {
        sd_journal_seek_realtime_usec(journal, since);
    }
    else
    {
        sd_journal_seek_head(journal);
    }
    while (sd_journal_next(journal) > 0)
    {
        auto fields = recordFields(journal);
        if (fields.contains("REDFISH_MESSAGE_ID"))
        {
            events.push_back(eventOf(fields, messages));
        }
    }
    sd_journal_close(journal);
    return events;
}

std::optional<pid_t> daemonPid(sdbus::IConnection& connection,
                               const std::string& service)
{
    auto proxy = sdbus::createProxy(connection, "org.freedesktop.DBus",
                                    "/org/freedesktop/DBus");
    std::uint32_t pid = 0;
    proxy->callMethod("GetConnectionUnixProcessID")
        .onInterface("org.freedesktop.DBus")
        .withArguments(service)
        .storeResultsTo(pid);
    return static_cast<pid_t>(pid);
}

// Riser number from an object's properties; 0 when it has none.
unsigned riserSlot(const Json& properties)
{
    auto slot = properties.find("RiserSlot");
    return slot == properties.end() ? 0
                                    : jsonInteger<unsigned>(*slot).value_or(0);
}

// The events that concern one riser: its cables and its location.
Json riserIssues(const Json& events, unsigned slot,
                 const std::vector<std::string>& names)
{
    const auto slotName = "PCIe Slot " + std::to_string(slot);
    const auto bmcName = "Slot " + std::to_string(slot) + " Riser";
    Json cable = Json::array();
    Json location = Json::array();
    for (const auto& event : events)
    {
        const auto id = event["id"].get<std::string>();
        if (event["args"].is_null())
        {
            continue;
        }
        const auto args = splitEventArguments(event["args"].get<std::string>());
        auto named = [&](const std::string& arg) {
            if (arg == bmcName)
            {
                return true;
            }
            for (const auto& name : names)
            {
                if (nonAlnumToUnderscores(arg) == nonAlnumToUnderscores(name))
                {
                    return true;
                }
            }
            return false;
        };
        if ((id == eventId::cableMisconnectedBetween ||
             id == eventId::cableMisconnected) &&
            named(args[0]))
        {
            cable.push_back(event["text"]);
        }
        else if ((id == eventId::riserCableNotConnected ||
                  id == eventId::riserCableMisconnected) &&
                 args[0] == slotName)
        {
            cable.push_back(event["text"]);
        }
        else if ((id == eventId::namedCableNotConnected ||
                  id == eventId::namedCableMisconnected) &&
                 args.size() > 1 && args[1] == slotName)
        {
            cable.push_back(event["text"]);
        }
        else if (id == eventId::riserWrongLocation && named(args[0]))
        {
            location.push_back(event["text"]);
        }
    }
    return {{"cable", cable.empty() ? Json("ok") : cable},
            {"location", location.empty() ? Json("ok") : location}};
}

// Riser numbers that the FPGA reported and no VPD object confirmed.
std::vector<unsigned> risersOnlyFpgaSaw(const Json& events)
{
    std::vector<unsigned> slots;
    for (const auto& event : events)
    {
        if (event["id"].get<std::string>() != eventId::notDetected ||
            event["args"].is_null())
        {
            continue;
        }
        const auto args = splitEventArguments(event["args"].get<std::string>());
        if (args.size() == 2 && args[0] == "BMC" &&
            args[1].starts_with("Slot "))
        {
            // "Slot 3 Riser": the number is the word after "Slot ".
            const auto word = args[1].substr(5, args[1].find(' ', 5) - 5);
            if (auto slot = decimalInteger<unsigned>(word))
            {
                slots.push_back(*slot);
            }
        }
    }
    return slots;
}

bool fpgaMissed(const Json& events, const std::string& name)
{
    for (const auto& event : events)
    {
        if (event["id"].get<std::string>() == eventId::notDetected &&
            event["args"] ==
                "FPGA" + std::string(eventArgumentSeparator) + name)
        {
            return true;
        }
    }
    return false;
}

// The daemon's objects, and its process when not given; what failed goes to
// errors and failures.
ManagedObjects readObjects(const Options& options, std::optional<pid_t>& pid,
                           Json& errors, Json& failures)
{
    ManagedObjects objects;
    try
    {
        auto connection = sdbus::createSystemBusConnection();
        if (!pid)
        {
            pid = daemonPid(*connection, options.service);
        }
        auto proxy = sdbus::createProxy(*connection, options.service, "/");
        proxy->callMethod("GetManagedObjects")
            .onInterface("org.freedesktop.DBus.ObjectManager")
            .storeResultsTo(objects);
    }
    catch (const sdbus::Error& e)
    {
        errors.push_back("D-Bus: " + e.getName() + ": " + e.getMessage());
        failures.push_back(
            options.service + " is not on the system bus: " + e.getMessage());
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

Json problemsOf(const Json& events)
{
    Json problems = Json::array();
    for (const auto& event : events)
    {
        if (event["problem"].get<bool>())
        {
            problems.push_back(event["id"].get<std::string>() + " " +
                               event["text"].get<std::string>());
        }
    }
    return problems;
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
