#include "collectParts.hpp"
#include "common/jsonNumber.hpp"
#include "common/names.hpp"
#include "events/eventIds.hpp"
#include "events/journalRecords.hpp"

namespace hwtopod::inspect
{

using Json = nlohmann::json;

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
        // A cable record names the riser, the riser's slot, or the cable
        // and then the slot.
        const bool cableOfRiser =
            ((id == eventId::cableMisconnectedBetween ||
              id == eventId::cableMisconnected) &&
             named(args[0])) ||
            ((id == eventId::riserCableNotConnected ||
              id == eventId::riserCableMisconnected) &&
             args[0] == slotName) ||
            ((id == eventId::namedCableNotConnected ||
              id == eventId::namedCableMisconnected) &&
             args.size() > 1 && args[1] == slotName);
        if (cableOfRiser)
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

} // namespace hwtopod::inspect
