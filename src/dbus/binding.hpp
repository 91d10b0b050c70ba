#pragma once

// The calls of the binding library that changed between its generations 1
// and 2, each behind one function of the same meaning on both. This header
// and binding.cpp are the only places that know which generation the bus
// layer is built against (HWTOPOD_SDBUS_GENERATION, defined for this library
// alone). Private to src/dbus.

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace hwtopod::dbus::binding
{

std::unique_ptr<sdbus::IConnection> systemBus();

// Asks for the name without flags: fails when another connection has it.
void requestName(sdbus::IConnection& connection, const std::string& name);

std::unique_ptr<sdbus::IProxy> createProxy(sdbus::IConnection& connection,
                                           const std::string& service,
                                           const std::string& path);

sdbus::MethodCall createMethodCall(sdbus::IProxy& proxy,
                                   const std::string& interface,
                                   const std::string& method);

std::unique_ptr<sdbus::IObject> createObject(sdbus::IConnection& connection,
                                             const std::string& path);

// What an external loop waits for: the bus's descriptor with its events, a
// descriptor that wakes the loop for messages the binding has queued
// (none: -1), and the time until the next time-out (none: nullopt).
struct PollData
{
    int fd = -1;
    short events = 0;
    int wakeFd = -1;
    std::optional<std::chrono::microseconds> timeout;
};

PollData pollData(const sdbus::IConnection& connection);

// Processes one pending event; false when there was none.
bool processPending(sdbus::IConnection& connection);

// Handlers take the message by reference on both generations.
using MessageHandler = std::function<void(sdbus::Message&)>;
using SetHandler = std::function<void(sdbus::PropertySetCall&)>;

// The members of one interface of an object. A property without setter is
// read-only for other clients.
struct Property
{
    std::string name;
    std::string signature;
    sdbus::property_get_callback getter;
    SetHandler setter;
};

struct Method
{
    std::string name;
    std::string inputSignature;
    std::string outputSignature;
    sdbus::method_callback handler;
};

// Declares the interface on the object, also when it has no members. Every
// interface of the object is added before finishRegistration().
void addInterface(sdbus::IObject& object, const std::string& interface,
                  const std::vector<Property>& properties,
                  const std::vector<Method>& methods = {});

// Puts the interfaces added so far on the bus.
void finishRegistration(sdbus::IObject& object);

void emitInterfacesAdded(sdbus::IObject& object,
                         const std::vector<std::string>& interfaces);

void emitPropertiesChanged(sdbus::IObject& object, const std::string& interface,
                           const std::vector<std::string>& properties);

sdbus::Signal createSignal(sdbus::IObject& object, const std::string& interface,
                           const std::string& member);

// The match lives as long as the slot.
sdbus::Slot addMatch(sdbus::IConnection& connection, const std::string& rule,
                     MessageHandler handler);

} // namespace hwtopod::dbus::binding
