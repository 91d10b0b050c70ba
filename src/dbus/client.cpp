#include "client.hpp"

#include "bus.hpp"
#include "common/logging.hpp"
#include "convert.hpp"

#include <sdbus-c++/sdbus-c++.h>

namespace hwtopod::dbus
{

std::mutex dbusClientMutex;

namespace
{
constexpr auto propertiesInterface = "org.freedesktop.DBus.Properties";

std::unique_ptr<sdbus::IConnection> temporaryConnection()
{
    return sdbus::createSystemBusConnection();
}

sdbus::Variant getProperty(const std::string& service, const std::string& path,
                           const std::string& interface,
                           const std::string& property)
{
    auto connection = temporaryConnection();
    auto proxy = sdbus::createProxy(*connection, service, path);
    sdbus::Variant value;
    proxy->callMethod("Get")
        .onInterface(propertiesInterface)
        .withArguments(interface, property)
        .storeResultsTo(value);
    return value;
}

// A failed call whose reply is ignored reports, as the daemon's log lines
// quote it, "sd_bus_call noreply" and then the bus error's name and text.
[[noreturn]] void throwNoReplyError(const sdbus::Error& e)
{
    throw Error("sd_bus_call noreply: " + e.getName() + ": " + e.getMessage());
}

sdbus::MethodCall makeCall(sdbus::IProxy& proxy, const std::string& interface,
                           const std::string& method,
                           const std::vector<Argument>& arguments)
{
    auto call = proxy.createMethodCall(interface, method);
    for (const auto& argument : arguments)
    {
        std::visit([&call](const auto& value) { call << value; }, argument);
    }
    return call;
}
} // namespace

template <typename T>
T getPropertyValue(const std::string& service, const std::string& path,
                   const std::string& interface, const std::string& property)
{
    std::lock_guard lock(dbusClientMutex);
    try
    {
        auto value = getProperty(service, path, interface, property);
        if (value.containsValueOfType<T>())
        {
            return value.get<T>();
        }
    }
    catch (const std::exception& e)
    {
        logError() << "getPropertyValue " << property
                   << " failed: " << e.what();
    }
    return T{};
}

template std::uint64_t getPropertyValue<std::uint64_t>(
    const std::string&, const std::string&, const std::string&,
    const std::string&);
template std::string getPropertyValue<std::string>(
    const std::string&, const std::string&, const std::string&,
    const std::string&);

void setPropertyValue(const std::string& path, const std::string& interface,
                      const std::string& value)
{
    std::lock_guard lock(dbusClientMutex);
    try
    {
        auto connection = temporaryConnection();
        auto proxy = sdbus::createProxy(*connection, "com.halvex.vpdd", path);
        proxy->callMethod("Set")
            .onInterface(propertiesInterface)
            .withArguments(interface, std::string("IpmiFruName"),
                           sdbus::Variant(value));
    }
    catch (const std::exception& e)
    {
        logCritical() << "setPropertyValue failed: " << e.what();
    }
}

std::vector<std::string> interfacesOfIntrospection(const std::string& xml)
{
    static const std::string opening = "<interface name=\"";
    std::vector<std::string> names;
    std::size_t position = 0;
    while (true)
    {
        auto start = xml.find(opening, position);
        if (start == std::string::npos)
        {
            break;
        }
        start += opening.size();
        auto end = xml.find('"', start);
        if (end == std::string::npos)
        {
            break;
        }
        std::string name = xml.substr(start, end - start);
        if (name.find("org.freedesktop.DBus") == std::string::npos)
        {
            names.push_back(std::move(name));
        }
        position = end + 1;
    }
    return names;
}

std::vector<std::string> getDbusInterfaces(const std::string& service,
                                           const std::string& path)
{
    std::lock_guard lock(dbusClientMutex);
    try
    {
        auto connection = temporaryConnection();
        auto proxy = sdbus::createProxy(*connection, service, path);
        std::string xml;
        proxy->callMethod("Introspect")
            .onInterface("org.freedesktop.DBus.Introspectable")
            .storeResultsTo(xml);
        return interfacesOfIntrospection(xml);
    }
    catch (const std::exception& e)
    {
        logCritical() << "getDbusInterfaces exception: " << e.what();
    }
    return {};
}

ManagedObjects getManagedObjects(const std::string& service,
                                 const std::string& path)
{
    try
    {
        auto connection = temporaryConnection();
        auto proxy = sdbus::createProxy(*connection, service, path);
        std::map<sdbus::ObjectPath,
                 std::map<std::string, std::map<std::string, sdbus::Variant>>>
            raw;
        proxy->callMethod("GetManagedObjects")
            .onInterface("org.freedesktop.DBus.ObjectManager")
            .storeResultsTo(raw);
        ManagedObjects objects;
        objects.reserve(raw.size());
        for (const auto& [objectPath, interfaces] : raw)
        {
            objects.emplace_back(objectPath, toInterfaceProperties(interfaces));
        }
        return objects;
    }
    catch (const sdbus::Error& e)
    {
        throw Error(e.what());
    }
}

namespace
{
// The call on a connection of its own; read takes what it needs of the
// reply.
template <typename Read>
auto callOnce(const std::string& service, const std::string& path,
              const std::string& interface, const std::string& method,
              const std::vector<Argument>& arguments, Read read)
{
    auto connection = temporaryConnection();
    auto proxy = sdbus::createProxy(*connection, service, path);
    auto call = makeCall(*proxy, interface, method, arguments);
    auto reply = proxy->callMethod(call);
    return read(reply);
}
} // namespace

void callMethod(const std::string& service, const std::string& path,
                const std::string& interface, const std::string& method,
                const std::vector<Argument>& arguments)
{
    try
    {
        callOnce(service, path, interface, method, arguments,
                 [](sdbus::MethodReply&) {});
    }
    catch (const sdbus::Error& e)
    {
        throwNoReplyError(e);
    }
}

std::int32_t callMethodInt32(
    const std::string& service, const std::string& path,
    const std::string& interface, const std::string& method,
    const std::vector<Argument>& arguments)
{
    try
    {
        return callOnce(service, path, interface, method, arguments,
                        [](sdbus::MethodReply& reply) {
            std::int32_t result = 0;
            reply >> result;
            return result;
        });
    }
    catch (const sdbus::Error& e)
    {
        throw Error(e.what());
    }
}

} // namespace hwtopod::dbus
