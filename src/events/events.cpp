#include "events.hpp"

#include "common/logging.hpp"
#include "eventIds.hpp"

#include <systemd/sd-journal.h>

#include <optional>

namespace hwtopod
{

namespace
{
// CODE_FILE and CODE_LINE name the call in this file; CODE_FUNC names the
// emitter, as a consumer of the records expects.
#define HWTOPOD_STRINGIFY2(x) #x
#define HWTOPOD_STRINGIFY(x) HWTOPOD_STRINGIFY2(x)
// Records come from the hardware, service, discovery and GPIO monitor
// threads and are sent without a lock of ours: the journal library keeps
// its socket to itself. A record the journal does not take (no journald, a
// full queue) is lost unnoticed: the send's result is not looked at, and
// the daemon goes on as if it had gone out.
#define JOURNAL_SEND(function, ...)                                            \
    static_cast<void>(sd_journal_send_with_location(                           \
        "CODE_FILE=" __FILE__, "CODE_LINE=" HWTOPOD_STRINGIFY(__LINE__),       \
        function, __VA_ARGS__, nullptr))

std::string fullId(const std::string& shortId)
{
    return redfishPrefix + shortId;
}

constexpr const char* presentFunc = "sendPresentEvent";

void presentRecord(const char* id, const char* text)
{
    JOURNAL_SEND(presentFunc, "MESSAGE=%s", text, "PRIORITY=%i", 6,
                 "REDFISH_MESSAGE_ID=%s", fullId(id).c_str());
}

void presentRecord(const char* id, const char* text, const std::string& arg)
{
    JOURNAL_SEND(presentFunc, "MESSAGE=%s", text, "PRIORITY=%i", 6,
                 "REDFISH_MESSAGE_ID=%s", fullId(id).c_str(),
                 "REDFISH_MESSAGE_ARGS=%s", arg.c_str());
}

void presentRecord(const char* id, const char* text, const std::string& arg1,
                   const std::string& arg2)
{
    JOURNAL_SEND(presentFunc, "MESSAGE=%s", text, "PRIORITY=%i", 6,
                 "REDFISH_MESSAGE_ID=%s", fullId(id).c_str(),
                 "REDFISH_MESSAGE_ARGS=%s::%s", arg1.c_str(), arg2.c_str());
}

void presentRecord(const char* id, const char* text, const std::string& arg1,
                   const std::string& arg2, const std::string& arg3)
{
    JOURNAL_SEND(presentFunc, "MESSAGE=%s", text, "PRIORITY=%i", 6,
                 "REDFISH_MESSAGE_ID=%s", fullId(id).c_str(),
                 "REDFISH_MESSAGE_ARGS=%s::%s::%s", arg1.c_str(), arg2.c_str(),
                 arg3.c_str());
}

constexpr const char* mismatchFunc = "sendConfigMismatchEvent";

void mismatchRecord(const char* id, const char* text, const std::string& arg)
{
    JOURNAL_SEND(mismatchFunc, "MESSAGE=%s", text, "PRIORITY=%i", 6,
                 "REDFISH_MESSAGE_ID=%s", fullId(id).c_str(),
                 "REDFISH_MESSAGE_ARGS=%s", arg.c_str());
}

void mismatchRecord(const char* id, const char* text, const std::string& arg1,
                    const std::string& arg2)
{
    JOURNAL_SEND(mismatchFunc, "MESSAGE=%s", text, "PRIORITY=%i", 6,
                 "REDFISH_MESSAGE_ID=%s", fullId(id).c_str(),
                 "REDFISH_MESSAGE_ARGS=%s::%s", arg1.c_str(), arg2.c_str());
}
} // namespace

void writeZmcEvent(const std::string& eventId, std::uint8_t index,
                   const std::string& deviceName)
{
    const std::string id = fullId(eventId);
    if (index == 0xFF)
    {
        JOURNAL_SEND("sendZmcEvent", "MESSAGE=%s", message::powerFault,
                     "PRIORITY=%i", 3, "REDFISH_MESSAGE_ID=%s", id.c_str(),
                     "REDFISH_MESSAGE_ARGS=%s", deviceName.c_str());
        return;
    }
    const std::string number = std::to_string(index);
    JOURNAL_SEND("sendZmcEvent", "MESSAGE=%s", message::powerFault,
                 "PRIORITY=%i", 3, "REDFISH_MESSAGE_ID=%s", id.c_str(),
                 "REDFISH_MESSAGE_ARGS=%s::%s", number.c_str(),
                 deviceName.c_str());
}

namespace
{
// Where a board sits, as its records name it.
struct Place
{
    std::string location;
    std::string number;
};

std::optional<Place> placeOf(DeviceType type, unsigned index)
{
    const std::string number = std::to_string(index);
    switch (type)
    {
        case DeviceType::PcieRiser:
            return Place{"PCIe Riser", number};
        case DeviceType::SlotRiserAlt:
        case DeviceType::SlotRiser:
            return Place{"Slot", number + " Riser"};
        case DeviceType::PcieCard:
            return Place{"PCIe Card", number};
        case DeviceType::Ocp:
            return Place{"OCP", number};
        case DeviceType::Backplane:
            return index == 0 ? Place{"M.2", "Backplane"}
                              : Place{"Backplane", number};
        default:
            return std::nullopt;
    }
}

// The records of the types that name no place; false for the other types.
bool sendUnplacedPresence(DeviceType type, bool present,
                          const std::string& name)
{
    const char* text = present ? message::present : message::absent;
    switch (type)
    {
        case DeviceType::FrontPanel:
            presentRecord(present ? "TKRMBPR0003I" : "TKRMBPR2003I", text);
            return true;
        case DeviceType::NamedElement:
        case DeviceType::NamedElementAlt:
            presentRecord(present ? "TKRMBIO0000I" : "TKRMBIO2000J", text,
                          name);
            return true;
        case DeviceType::SecurityJumper:
            presentRecord(present ? "TKRMBUN0026I" : "TKRMBUN2026I", text);
            return true;
        default:
            return false;
    }
}
} // namespace

void sendPresentEvent(DeviceType type, bool present, unsigned index,
                      const std::string& name, bool installEvent)
{
    if (sendUnplacedPresence(type, present, name))
    {
        return;
    }
    const auto place = placeOf(type, index);
    if (!place)
    {
        logInfo() << "sendPresentEvent: ignored";
        return;
    }
    // A card and an OCP device only have install records.
    if (!installEvent &&
        (type == DeviceType::PcieCard || type == DeviceType::Ocp))
    {
        return;
    }
    const auto& [location, number] = *place;
    if (installEvent)
    {
        presentRecord(present ? "TKRMBIO0032I" : "TKRMBIO0033I",
                      present ? message::installed : message::uninstalled,
                      location, number);
        return;
    }

    if (!name.empty())
    {
        if (present)
        {
            presentRecord("TKRMBIO0034I", message::connected, name, location,
                          number);
        }
        else
        {
            presentRecord("TKRMBIO2000J", message::disconnected, name);
        }
        return;
    }
    const std::string link = "links with " + location + " " + number;
    presentRecord(present ? "TKRMBIO0000I" : "TKRMBIO2000J",
                  present ? message::connected : message::disconnected, link);
}

void sendConfigMismatchEvent(DeviceType type, ConfigMismatchKind kind,
                             const std::string& name, const std::string& detail)
{
    auto typeValue = static_cast<std::uint32_t>(type);
    if (typeValue != 12 && (typeValue < 16 || typeValue > 18))
    {
        logInfo() << "sendConfigMismatchEvent: deviceType ignored";
        return;
    }
    switch (kind)
    {
        case ConfigMismatchKind::WrongLocation:
            mismatchRecord(eventId::riserWrongLocation.data(),
                           message::wrongLocation, name);
            return;
        case ConfigMismatchKind::CableMisconnected:
            mismatchRecord(
                detail.find(eventArgumentSeparator) != std::string::npos
                    ? eventId::cableMisconnectedBetween.data()
                    : eventId::cableMisconnected.data(),
                message::cable, name, detail);
            return;
        case ConfigMismatchKind::SystemMismatch:
            mismatchRecord("TKRMBCP0001G", message::systemMismatch, name);
            return;
        case ConfigMismatchKind::NotDetected:
            mismatchRecord(eventId::notDetected.data(), message::notDetected,
                           detail, name);
            return;
        case ConfigMismatchKind::ProcessorConfiguration:
            mismatchRecord("TKRMBPU0009N", message::processorConfiguration,
                           name);
            return;
        case ConfigMismatchKind::ProcessorFeature:
            JOURNAL_SEND(mismatchFunc, "MESSAGE=%s", message::processorFeature,
                         "PRIORITY=%i", 6, "REDFISH_MESSAGE_ID=%s",
                         fullId("TKRMBPU0015G").c_str(),
                         "REDFISH_MESSAGE_ARGS=");
            return;
        default:
            logInfo() << "sendConfigMismatchEvent: eventType ignored";
            return;
    }
}

void sendRiserCableEvent(int kind, const std::string& deviceName,
                         const std::string& rightLocation,
                         const std::string& wrongLocation,
                         const std::string& cableName)
{
    logInfo() << "sendRiserCableEvent "
              << " deviceName " << deviceName << " rightLocation "
              << rightLocation << " wrongLocation " << wrongLocation
              << " cableName " << cableName;
    constexpr const char* func = "sendRiserCableEvent";
    const bool notConnected = kind == 2;
    const char* shortId =
        (notConnected ? (cableName.empty() ? eventId::riserCableNotConnected
                                           : eventId::namedCableNotConnected)
                      : (cableName.empty() ? eventId::riserCableMisconnected
                                           : eventId::namedCableMisconnected))
            .data();
    const std::string text = std::string(shortId) + ":" + deviceName +
                             (notConnected ? " signal cable not connected"
                                           : " signal cable misconnected");
    const std::string id = fullId(shortId);
    if (notConnected && cableName.empty())
    {
        JOURNAL_SEND(func, "MESSAGE=%s", text.c_str(), "PRIORITY=%i", 6,
                     "REDFISH_MESSAGE_ID=%s", id.c_str(),
                     "REDFISH_MESSAGE_ARGS=%s::%s", deviceName.c_str(),
                     rightLocation.c_str());
    }
    else if (notConnected)
    {
        JOURNAL_SEND(func, "MESSAGE=%s", text.c_str(), "PRIORITY=%i", 6,
                     "REDFISH_MESSAGE_ID=%s", id.c_str(),
                     "REDFISH_MESSAGE_ARGS=%s::%s::%s", cableName.c_str(),
                     deviceName.c_str(), rightLocation.c_str());
    }
    else if (cableName.empty())
    {
        JOURNAL_SEND(func, "MESSAGE=%s", text.c_str(), "PRIORITY=%i", 6,
                     "REDFISH_MESSAGE_ID=%s", id.c_str(),
                     "REDFISH_MESSAGE_ARGS=%s::%s::%s", deviceName.c_str(),
                     wrongLocation.c_str(), rightLocation.c_str());
    }
    else
    {
        JOURNAL_SEND(func, "MESSAGE=%s", text.c_str(), "PRIORITY=%i", 6,
                     "REDFISH_MESSAGE_ID=%s", id.c_str(),
                     "REDFISH_MESSAGE_ARGS=%s::%s::%s::%s", cableName.c_str(),
                     deviceName.c_str(), wrongLocation.c_str(),
                     rightLocation.c_str());
    }
}

void sendChassisClosedEvent(const std::string& productName)
{
    JOURNAL_SEND("remedyChassisCloseEvent", "MESSAGE=%s",
                 message::chassisClosed, "PRIORITY=%i", 4,
                 "REDFISH_MESSAGE_ID=%s", fullId("TKRMBSE2000I").c_str(),
                 "REDFISH_MESSAGE_ARGS=%s", productName.c_str());
}

} // namespace hwtopod
