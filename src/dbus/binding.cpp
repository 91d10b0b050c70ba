#include "binding.hpp"

#if !defined(HWTOPOD_SDBUS_GENERATION) ||                                      \
    (HWTOPOD_SDBUS_GENERATION != 1 && HWTOPOD_SDBUS_GENERATION != 2)
#error "HWTOPOD_SDBUS_GENERATION must be 1 or 2"
#endif

namespace hwtopod::dbus::binding
{

std::unique_ptr<sdbus::IConnection> systemBus()
{
    return sdbus::createSystemBusConnection();
}

#if HWTOPOD_SDBUS_GENERATION == 2

// Generation 2 names every kind of bus name by a type of its own, takes an
// interface's members as one table, and has no separate registration step.

void requestName(sdbus::IConnection& connection, const std::string& name)
{
    connection.requestName(sdbus::ServiceName(name));
}

std::unique_ptr<sdbus::IProxy> createProxy(sdbus::IConnection& connection,
                                           const std::string& service,
                                           const std::string& path)
{
    return sdbus::createProxy(connection, sdbus::ServiceName(service),
                              sdbus::ObjectPath(path));
}

sdbus::MethodCall createMethodCall(sdbus::IProxy& proxy,
                                   const std::string& interface,
                                   const std::string& method)
{
    return proxy.createMethodCall(sdbus::InterfaceName(interface),
                                  sdbus::MethodName(method));
}

std::unique_ptr<sdbus::IObject> createObject(sdbus::IConnection& connection,
                                             const std::string& path)
{
    return sdbus::createObject(connection, sdbus::ObjectPath(path));
}

PollData pollData(const sdbus::IConnection& connection)
{
    const auto data = connection.getEventLoopPollData();
    PollData result{data.fd, data.events, data.eventFd, std::nullopt};
    const auto relative = data.getRelativeTimeout();
    if (relative != std::chrono::microseconds::max())
    {
        result.timeout = relative;
    }
    return result;
}

bool processPending(sdbus::IConnection& connection)
{
    return connection.processPendingEvent();
}

namespace
{
sdbus::property_set_callback setHandler(SetHandler handler)
{
    if (!handler)
    {
        return {};
    }
    return [handler = std::move(handler)](sdbus::PropertySetCall call) {
        handler(call);
    };
}
} // namespace

void addInterface(sdbus::IObject& object, const std::string& interface,
                  const std::vector<Property>& properties,
                  const std::vector<Method>& methods)
{
    std::vector<sdbus::VTableItem> table{sdbus::setInterfaceFlags()};
    for (const auto& property : properties)
    {
        table.emplace_back(sdbus::PropertyVTableItem{
            sdbus::PropertyName(property.name),
            sdbus::Signature(property.signature), property.getter,
            setHandler(property.setter), sdbus::Flags{}});
    }
    for (const auto& method : methods)
    {
        table.emplace_back(sdbus::MethodVTableItem{
            sdbus::MethodName(method.name),
            sdbus::Signature(method.inputSignature),
            {},
            sdbus::Signature(method.outputSignature),
            {},
            method.handler,
            sdbus::Flags{}});
    }
    object.addVTable(sdbus::InterfaceName(interface), std::move(table));
}

void finishRegistration(sdbus::IObject& /*object*/) {}

void emitInterfacesAdded(sdbus::IObject& object,
                         const std::vector<std::string>& interfaces)
{
    std::vector<sdbus::InterfaceName> names;
    names.reserve(interfaces.size());
    for (const auto& interface : interfaces)
    {
        names.emplace_back(interface);
    }
    object.emitInterfacesAddedSignal(names);
}

void emitPropertiesChanged(sdbus::IObject& object, const std::string& interface,
                           const std::vector<std::string>& properties)
{
    std::vector<sdbus::PropertyName> names;
    names.reserve(properties.size());
    for (const auto& property : properties)
    {
        names.emplace_back(property);
    }
    object.emitPropertiesChangedSignal(sdbus::InterfaceName(interface), names);
}

sdbus::Signal createSignal(sdbus::IObject& object, const std::string& interface,
                           const std::string& member)
{
    return object.createSignal(sdbus::InterfaceName(interface),
                               sdbus::SignalName(member));
}

sdbus::Slot addMatch(sdbus::IConnection& connection, const std::string& rule,
                     MessageHandler handler)
{
    return connection.addMatch(
        rule,
        [handler = std::move(handler)](sdbus::Message message) {
        handler(message);
        },
        sdbus::return_slot);
}

#else

void requestName(sdbus::IConnection& connection, const std::string& name)
{
    connection.requestName(name);
}

std::unique_ptr<sdbus::IProxy> createProxy(sdbus::IConnection& connection,
                                           const std::string& service,
                                           const std::string& path)
{
    return sdbus::createProxy(connection, service, path);
}

sdbus::MethodCall createMethodCall(sdbus::IProxy& proxy,
                                   const std::string& interface,
                                   const std::string& method)
{
    return proxy.createMethodCall(interface, method);
}

std::unique_ptr<sdbus::IObject> createObject(sdbus::IConnection& connection,
                                             const std::string& path)
{
    return sdbus::createObject(connection, path);
}

PollData pollData(const sdbus::IConnection& connection)
{
    const auto data = connection.getEventLoopPollData();
    return PollData{data.fd, data.events, -1, data.getRelativeTimeout()};
}

bool processPending(sdbus::IConnection& connection)
{
    return connection.processPendingRequest();
}

void addInterface(sdbus::IObject& object, const std::string& interface,
                  const std::vector<Property>& properties,
                  const std::vector<Method>& methods)
{
    object.setInterfaceFlags(interface, sdbus::Flags{});
    for (const auto& property : properties)
    {
        if (property.setter)
        {
            object.registerProperty(interface, property.name,
                                    property.signature, property.getter,
                                    property.setter);
        }
        else
        {
            object.registerProperty(interface, property.name,
                                    property.signature, property.getter);
        }
    }
    for (const auto& method : methods)
    {
        object.registerMethod(interface, method.name, method.inputSignature,
                              method.outputSignature, method.handler);
    }
}

void finishRegistration(sdbus::IObject& object)
{
    object.finishRegistration();
}

void emitInterfacesAdded(sdbus::IObject& object,
                         const std::vector<std::string>& interfaces)
{
    object.emitInterfacesAddedSignal(interfaces);
}

void emitPropertiesChanged(sdbus::IObject& object, const std::string& interface,
                           const std::vector<std::string>& properties)
{
    object.emitPropertiesChangedSignal(interface, properties);
}

sdbus::Signal createSignal(sdbus::IObject& object, const std::string& interface,
                           const std::string& member)
{
    return object.createSignal(interface, member);
}

sdbus::Slot addMatch(sdbus::IConnection& connection, const std::string& rule,
                     MessageHandler handler)
{
    return connection.addMatch(rule, std::move(handler));
}

#endif

} // namespace hwtopod::dbus::binding
