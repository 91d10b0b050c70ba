#include "inspect.hpp"

#include <map>
#include <sstream>

namespace hwtopod::inspect
{

namespace
{

using Json = nlohmann::json;

// Sentences by short id; {n} is argument n.
const std::map<std::string, std::string>& sentences()
{
    static const std::map<std::string, std::string> table = {
        {"TKRMBIO0000I", "{0}: connected"},
        {"TKRMBIO2000J", "{0}: disconnected"},
        {"TKRMBIO0034I", "{1} {2} connected through power connector {0}"},
        {"TKRMBIO0032I", "{0} {1} installed"},
        {"TKRMBIO0033I", "{0} {1} removed"},
        {"TKRMBPR0003I", "front panel present"},
        {"TKRMBPR2003I", "front panel absent"},
        {"TKRMBUN0026I", "low security jumper fitted"},
        {"TKRMBUN2026I", "low security jumper not fitted"},
        {"TKRMBIO0035G", "{0} sits in the wrong location"},
        {"TKRMBIO0036G", "{0}: signal cables misconnected, should be {1}"},
        {"TKRMBIO0037G", "{0}: signal cable misconnected, should go {1}"},
        {"TKRMBCP0001G", "{0} does not fit the system"},
        {"TKRMBSS0012G", "{1} is not detected by the {0}"},
        {"TKRMBPU0009N", "CPU {0} configuration mismatch"},
        {"TKRMBPU0015G", "processor feature flags differ from CPU 1"},
        {"TKRMBIO0038G", "{0}: signal cable not connected, belongs on {1}"},
        {"TKRMBIO0039G", "{0}: signal cable on {1}, belongs on {2}"},
        {"TKRMBIO0040G", "{1}: cable {0} not connected, belongs on {2}"},
        {"TKRMBIO0041G", "{1}: cable {0} on {2}, belongs on {3}"},
        {"TKRMBPW0129N", "CPU {0} voltage regulator fault on {1}"},
        {"TKRMBPW0131N", "power fault on {0}"},
        {"TKRMBPW0132N", "fan {0} power fault"},
        {"TKRMBPW0133N", "standby power of the board not ready"},
        {"TKRMBPU0001N", "CPU {0} thermal trip"},
        {"TKRMBPU2001I", "CPU {0} thermal trip ended"},
        {"TKRMBSE2000I", "chassis of {0} closed"},
    };
    return table;
}

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

} // namespace

std::string describeEvent(const std::string& id,
                          const std::vector<std::string>& args)
{
    auto found = sentences().find(id);
    std::string sentence;
    if (found == sentences().end())
    {
        for (const auto& arg : args)
        {
            sentence += (sentence.empty() ? "" : ", ") + arg;
        }
        return sentence;
    }
    const auto& pattern = found->second;
    for (std::size_t i = 0; i < pattern.size(); ++i)
    {
        if (pattern[i] == '{' && i + 2 < pattern.size() &&
            pattern[i + 2] == '}')
        {
            const auto index = static_cast<std::size_t>(pattern[i + 1] - '0');
            sentence += index < args.size() ? args[index] : "?";
            i += 2;
        }
        else
        {
            sentence += pattern[i];
        }
    }
    return sentence;
}

bool isProblem(const std::string& id)
{
    // The severity letter at the end: I informational, the others call for
    // attention (G configuration, N fault, J disconnection).
    return !id.empty() && id.back() != 'I';
}

std::string render(const Json& document)
{
    std::ostringstream out;
    const auto& service = document["service"];
    out << "hwtopod on " << text(service["name"]) << ": "
        << (service["onBus"] == true ? "running" : "not on the bus") << ", pid "
        << text(service["pid"]) << "\n";
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
            out << "  " << text(event["id"]) << "  " << text(event["text"])
                << "\n";
        }
    }
    section(out, "Other events");
    std::size_t others = 0;
    for (const auto& event : document["events"])
    {
        if (event["problem"] == false)
        {
            out << "  " << text(event["id"]) << "  " << text(event["text"])
                << "\n";
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
