#pragma once

// Redfish event records in the system journal.

#include <cstdint>
#include <string>

namespace hwtopod
{

// What an event is about; also selects the I2C link names. Fixed values.
enum class DeviceType : std::uint32_t
{
    Cpu = 12,
    PcieRiser = 16,
    SlotRiserAlt = 17,
    SlotRiser = 18,
    PcieCard = 19,
    Ocp = 20,
    Backplane = 26,
    FrontPanel = 33,
    NamedElement = 34,
    NamedElementAlt = 35,
    SecurityJumper = 36,
    Midplane = 38,
};

enum class ConfigMismatchKind : std::uint32_t
{
    WrongLocation = 0,
    CableMisconnected = 1,
    SystemMismatch = 3,
    NotDetected = 4,
    ProcessorConfiguration = 5,
    ProcessorFeature = 6,
};

inline constexpr const char* redfishPrefix = "EventRegistry.1.0.";

namespace message
{
inline constexpr const char* connected =
    "This message is for the use case when an implementation has detected a Connector has been Connected.";
inline constexpr const char* disconnected =
    "This message is for the use case when an implementation has detected a Connector was Disconnected.";
inline constexpr const char* present =
    "This message is for the use case when an implementation has detected a Managed Element is now Present.";
inline constexpr const char* absent =
    "This message is for the use case when an implementation has detected a Managed Element is Absent.";
inline constexpr const char* installed =
    "This message is for the use case when an implementation has detected that a device has installed.";
inline constexpr const char* uninstalled =
    "This message is for the use case when an implementation has detected that a device has uninstalled.";
inline constexpr const char* notDetected =
    "This message is for the use case when an implementation has detected that a device cannot be detected.";
inline constexpr const char* wrongLocation =
    "This message is for the use case when an implementation has detected that a device has been installed in wrong location.";
inline constexpr const char* cable =
    "This message is for the use case when an implementation has detected that a device cable has been missconnected.";
inline constexpr const char* systemMismatch =
    "This message is for the use case when an implementation has detected that a device mismatch with the system.";
inline constexpr const char* processorConfiguration =
    "This message is for the use case when an implementation has detected a Processor Configuration Mismatch has occurred.";
inline constexpr const char* processorFeature =
    "This message is for the use case when an implementation has detected Processor Feature Mismatch has occurred.";
inline constexpr const char* powerFault =
    "This message is for the VR power fault";
inline constexpr const char* chassisClosed =
    "This message is for the use case when a Chassis has been closed.";
} // namespace message

// Power fault and thermal trip records; eventId is the short id, index a CPU
// number or 255 for none.
void writeZmcEvent(const std::string& eventId, std::uint8_t index,
                   const std::string& deviceName);

void sendPresentEvent(DeviceType type, bool present, unsigned index,
                      const std::string& name, bool installEvent);

void sendConfigMismatchEvent(DeviceType type, ConfigMismatchKind kind,
                             const std::string& name,
                             const std::string& detail);

void sendRiserCableEvent(int kind, const std::string& deviceName,
                         const std::string& rightLocation,
                         const std::string& wrongLocation,
                         const std::string& cableName);

// The chassis closed record (TKRMBSE2000I) with the product's name.
void sendChassisClosedEvent(const std::string& productName);

} // namespace hwtopod
