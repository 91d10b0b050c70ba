#include "events/eventIds.hpp"
#include "inspect.hpp"

#include <cctype>
#include <charconv>
#include <set>
#include <sstream>

namespace hwtopod::inspect
{

namespace
{

using Json = nlohmann::json;

std::string text(const Json& value)
{
    if (value.is_string())
    {
        return value.get<std::string>();
    }
    if (value.is_null())
    {
        return "-";
    }
    return value.dump();
}

std::string listOf(const Json& values, const std::string& separator)
{
    std::string result;
    for (const auto& value : values)
    {
        result += (result.empty() ? "" : separator) + text(value);
    }
    return result;
}

void section(std::ostringstream& out, const std::string& title)
{
    out << "\n" << title << "\n" << std::string(title.size(), '-') << "\n";
}

void renderPlatform(std::ostringstream& out, const Json& platform)
{
    section(out, "Platform");
    for (const auto& [key, value] : platform.items())
    {
        if (key == "Psus" || key == "BackplaneStatus")
        {
            continue;
        }
        out << "  " << key << ": " << text(value) << "\n";
    }
    for (const auto& psu : platform["Psus"])
    {
        out << "  PSU " << text(psu.value("Name", Json())) << " ("
            << text(psu.value("Type", Json())) << ")\n";
    }
    std::string fitted;
    for (const auto& [key, value] : platform["BackplaneStatus"].items())
    {
        if (value == true)
        {
            fitted += (fitted.empty() ? "" : ", ") + key;
        }
    }
    out << "  Backplanes installed: " << (fitted.empty() ? "none" : fitted)
        << "\n";
}

void renderRisers(std::ostringstream& out, const Json& risers)
{
    section(out, "Risers");
    if (risers.empty())
    {
        out << "  none\n";
    }
    for (const auto& riser : risers)
    {
        const auto& p = riser["properties"];
        out << "  Riser " << text(riser["riser"]);
        if (!riser["path"].is_null())
        {
            out << "  " << text(riser["path"]);
        }
        out << "  [" << text(riser["seenBy"]) << "]\n";
        if (p.contains("RiserName"))
        {
            out << "    name " << text(p["RiserName"]);
            if (p.contains("Location"))
            {
                out << ", " << text(p["Location"]);
            }
            if (p.contains("RiserType"))
            {
                out << ", " << text(p["RiserType"]);
            }
            out << "\n";
        }
        if (p.contains("Connector"))
        {
            out << "    power connector PWR_" << text(p["Connector"]) << "\n";
        }
        if (p.contains("MCIO"))
        {
            out << "    signal cables to " << listOf(p["MCIO"], ", ") << "\n";
        }
        for (const auto& slot : riser["slots"])
        {
            out << "    PCIe slot " << text(slot["slot"]) << ": I2C bus "
                << text(slot["i2c"]["bus"]) << " (" << text(slot["i2c"]["link"])
                << ")\n";
        }
        out << "    cable: "
            << (riser["cable"].is_string() ? text(riser["cable"])
                                           : listOf(riser["cable"], "; "))
            << "\n";
        out << "    location: "
            << (riser["location"].is_string() ? text(riser["location"])
                                              : listOf(riser["location"], "; "))
            << "\n";
    }
}

void renderBackplanes(std::ostringstream& out, const Json& backplanes,
                      const Json& midplanes)
{
    section(out, "Backplanes");
    if (backplanes.empty())
    {
        out << "  none\n";
    }
    for (const auto& bp : backplanes)
    {
        const auto& p = bp["properties"];
        out << "  Backplane " << text(p.value("BackplaneId", Json())) << "  "
            << text(bp["path"]) << "\n";
        out << "    FRU name " << text(p.value("BackplaneName", Json()));
        if (p.contains("Position"))
        {
            out << ", " << text(p["Position"]);
        }
        if (p.contains("DriveType"))
        {
            out << ", " << text(p["DriveType"]);
        }
        out << "\n    power connector "
            << (p.contains("Connector") ? "PWR_" + text(p["Connector"])
                                        : std::string("-"))
            << "\n";
        if (bp.contains("i2c"))
        {
            out << "    I2C bus " << text(bp["i2c"]["bus"]) << " ("
                << text(bp["i2c"]["link"]) << ")\n";
        }
    }
    if (!midplanes.empty())
    {
        section(out, "Midplanes");
        for (const auto& midplane : midplanes)
        {
            out << "  " << text(midplane["path"]) << "\n";
        }
    }
}

void renderPresence(std::ostringstream& out, const Json& presence)
{
    section(out, "Device presence");
    if (presence.is_null())
    {
        out << "  not published\n";
        return;
    }
    std::string present;
    std::string absent;
    for (const auto& [key, value] : presence.items())
    {
        auto& list = value == true ? present : absent;
        list += (list.empty() ? "" : " ") + key;
    }
    out << "  present: " << (present.empty() ? "-" : present) << "\n";
    out << "  absent:  " << (absent.empty() ? "-" : absent) << "\n";
}

// Whether more than one process wrote the records, as after a restart: then
// each is shown with its process.
bool severalWriters(const Json& events)
{
    std::set<Json> writers;
    for (const auto& event : events)
    {
        writers.insert(event["pid"]);
    }
    return writers.size() > 1;
}

} // namespace

std::string describeEvent(const Json& message,
                          const std::vector<std::string>& args)
{
    std::string sentence;
    if (!message.is_object() || !message.contains("Message") ||
        !message["Message"].is_string())
    {
        for (const auto& arg : args)
        {
            sentence +=
                (sentence.empty() ? "" : std::string(eventArgumentSeparator)) +
                arg;
        }
        return sentence;
    }
    const auto pattern = message["Message"].get<std::string>();
    for (std::size_t i = 0; i < pattern.size(); ++i)
    {
        std::size_t end = i + 1;
        while (end < pattern.size() && end - i <= 2 &&
               std::isdigit(static_cast<unsigned char>(pattern[end])) != 0)
        {
            ++end;
        }
        unsigned number = 0;
        if (pattern[i] != '%' || std::from_chars(pattern.data() + i + 1,
                                                 pattern.data() + end, number)
                                         .ec != std::errc())
        {
            sentence += pattern[i];
            continue;
        }
        sentence +=
            number >= 1 && number <= args.size() ? args[number - 1] : "?";
        i = end - 1;
    }
    return sentence;
}

std::string render(const Json& document)
{
    std::ostringstream out;
    const auto& service = document["service"];
    out << "hwtopod on " << text(service["name"]) << ": "
        << (service["onBus"] == true ? "running" : "not on the bus") << ", pid "
        << text(service["pid"]) << "\n";
    const auto writer =
        [several = severalWriters(document["events"])](const Json& event) {
        return several ? "pid " + text(event["pid"]) + "  " : std::string();
    };
    for (const auto& error : document["errors"])
    {
        out << "  ! " << text(error) << "\n";
    }
    renderPlatform(out, document["platform"]);
    renderRisers(out, document["risers"]);
    renderBackplanes(out, document["backplanes"], document["midplanes"]);
    renderPresence(out, document["devicePresence"]);

    section(out, "Result files");
    for (const auto& [file, content] : document["resultFiles"].items())
    {
        out << "  /var/configuration/" << file << ": ";
        if (content.is_null())
        {
            out << "not written\n";
            continue;
        }
        std::size_t count = 0;
        for (const auto& [key, records] : content.items())
        {
            count += records.is_array() ? records.size() : 0;
        }
        out << count << " record(s)\n";
    }

    section(out, "Configuration problems");
    if (document["problems"].empty())
    {
        out << "  none\n";
    }
    for (const auto& event : document["events"])
    {
        if (event["problem"] == true)
        {
            out << "  " << writer(event) << text(event["id"]) << "  "
                << text(event["severity"]) << ": " << text(event["text"])
                << "\n";
        }
    }
    section(out, "Other events");
    std::size_t others = 0;
    for (const auto& event : document["events"])
    {
        if (event["problem"] == false)
        {
            out << "  " << writer(event) << text(event["id"]) << "  "
                << text(event["text"]) << "\n";
            ++others;
        }
    }
    if (others == 0)
    {
        out << "  none\n";
    }
    return out.str();
}

} // namespace hwtopod::inspect
