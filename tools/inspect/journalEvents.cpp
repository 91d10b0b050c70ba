#include "collectParts.hpp"
#include "common/jsonNumber.hpp"
#include "events/journalRecords.hpp"
#include "inspect.hpp"

#include <systemd/sd-id128.h>
#include <systemd/sd-journal.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace hwtopod::inspect
{

using Json = nlohmann::json;

namespace
{

// Field index (counted from 1, as in proc(5)) of /proc/PID/stat; empty when
// the process or the field is not there.
std::string statField(pid_t pid, int wanted)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(stat, text) || text.rfind(')') == std::string::npos)
    {
        return {};
    }
    // Fields after the command name, which is in parentheses.
    std::istringstream rest(text.substr(text.rfind(')') + 1));
    std::string field;
    for (int index = 3; rest >> field; ++index)
    {
        if (index == wanted)
        {
            return field;
        }
    }
    return {};
}

// Realtime microseconds at which a process started; 0 when unknown.
std::uint64_t processStart(pid_t pid)
{
    const auto ticks = decimalInteger<std::uint64_t>(statField(pid, 22));
    if (!ticks)
    {
        return 0;
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
    return bootedAt + *ticks * 1000000ULL / hz - 1000000ULL / hz;
}

// Which records are the service's: journal matches, and the time to read
// from (0: the start of the boot).
struct ServiceRecords
{
    std::string match;
    std::uint64_t since = 0;
};

// The service's processes are every process the daemon's unit has run this
// boot, restarts included: the unit's records, as journalctl -b -u shows
// them. That holds where the daemon is a service of the system's manager,
// PID 1, its parent. Elsewhere (the simulator, the tests) there is no unit,
// and the same executable may have run many times this boot for other
// machines; there the service is the daemon's executable as run by the
// daemon's parent, which starts it again as a unit would: every process of
// that executable since the parent started. When even that is unknown, the
// daemon's own process since it started.
ServiceRecords serviceRecords(pid_t pid)
{
    const auto parent = decimalInteger<pid_t>(statField(pid, 4));
    char* unit = nullptr;
    if (parent == 1 && sd_pid_get_unit(pid, &unit) >= 0)
    {
        ServiceRecords records{std::string("_SYSTEMD_UNIT=") + unit};
        std::free(unit);
        return records;
    }
    std::error_code error;
    const auto executable = std::filesystem::read_symlink(
        "/proc/" + std::to_string(pid) + "/exe", error);
    const auto parentStart = parent ? processStart(*parent) : 0;
    if (!error && parentStart != 0)
    {
        return {"_EXE=" + executable.string(), parentStart};
    }
    return {"_PID=" + std::to_string(pid), processStart(pid)};
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

} // namespace

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

Json journalEvents(pid_t pid, const Json& messages, Json& errors)
{
    Json events = Json::array();
    sd_journal* journal = nullptr;
    if (sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY) < 0)
    {
        errors.push_back("cannot open the journal");
        return events;
    }
    const auto service = serviceRecords(pid);
    sd_journal_add_match(journal, service.match.c_str(), 0);
    sd_id128_t boot{};
    if (sd_id128_get_boot(&boot) >= 0)
    {
        char text[SD_ID128_STRING_MAX];
        const auto bootMatch =
            "_BOOT_ID=" + std::string(sd_id128_to_string(boot, text));
        sd_journal_add_match(journal, bootMatch.c_str(), 0);
    }
    if (service.since != 0)
    {
        sd_journal_seek_realtime_usec(journal, service.since);
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
            auto event = eventOf(fields, messages);
            event["pid"] = decimalInteger<pid_t>(fields["_PID"]).value_or(0);
            events.push_back(std::move(event));
        }
    }
    sd_journal_close(journal);
    return events;
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

} // namespace hwtopod::inspect
