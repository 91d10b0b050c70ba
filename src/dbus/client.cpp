#include "client.hpp"

#include "binding.hpp"
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

// The call on a connection of its own, with the arguments that write puts
// into it; read takes what it needs of the reply.
template <typename Write, typename Read>
auto callOnce(const std::string& service, const std::string& path,
              const std::string& interface, const std::string& method,
              Write write, Read read)
{
    auto connection = binding::systemBus();
    auto proxy = binding::createProxy(*connection, service, path);
    auto call = binding::createMethodCall(*proxy, interface, method);
    write(call);
    auto reply = proxy->callMethod(call);
    return read(reply);
}

template <typename Result, typename... Arguments>
Result callForValue(const std::string& service, const std::string& path,
                    const std::string& interface, const std::string& method,
                    const Arguments&... arguments)
{
    return callOnce(
        service, path, interface, method,
        [&](sdbus::MethodCall& call) { ((call << arguments), ...); },
        [](sdbus::MethodReply& reply) {
        Result result{};
        reply >> result;
        return result;
        });
}

sdbus::Variant getProperty(const std::string& service, const std::string& path,
                           const std::string& interface,
                           const std::string& property)
{
    return callForValue<sdbus::Variant>(service, path, propertiesInterface,
                                        "Get", interface, property);
}

// A failed call whose reply is ignored reports, as the daemon's log lines
// quote it, "sd_bus_call noreply" and then the bus error's name and text.
[[noreturn]] void throwNoReplyError(const sdbus::Error& e)
{
    throw Error("sd_bus_call noreply: " + e.getName() + ": " + e.getMessage());
}

void appendArguments(sdbus::MethodCall& call,
                     const std::vector<Argument>& arguments)
{
    for (const auto& argument : arguments)
    {
        std::visit([&call](const auto& value) { call << value; }, argument);
    }
}

template <typename Result>
Result callForResult(const std::string& service, const std::string& path,
                     const std::string& interface, const std::string& method,
                     const std::vector<Argument>& arguments)
{
    return translateErrors([&]() {
        return callOnce(
            service, path, interface, method,
            [&](sdbus::MethodCall& call) { appendArguments(call, arguments); },
            [](sdbus::MethodReply& reply) {
            Result result{};
            reply >> result;
            return result;
            });
    });
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
        setProperty("com.halvex.vpdd", path, interface, "IpmiFruName", value);
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
        return interfacesOfIntrospection(callForValue<std::string>(
            service, path, "org.freedesktop.DBus.Introspectable",
            "Introspect"));
    }
    catch (const std::exception& e)
    {
        logCritical() << "getDbusInterfaces exception: " << e.what();
    }
    return {};
}

namespace
{
using RawObjects =
    std::map<sdbus::ObjectPath,
             std::map<std::string, std::map<std::string, sdbus::Variant>>>;

RawObjects getRawManagedObjects(const std::string& service,
                                const std::string& path)
{
    return translateErrors([&]() {
        return callForValue<RawObjects>(service, path,
                                        "org.freedesktop.DBus.ObjectManager",
                                        "GetManagedObjects");
    });
}

AnyProperties toAnyProperties(
    const std::map<std::string, sdbus::Variant>& properties)
{
    AnyProperties result;
    for (const auto& [name, value] : properties)
    {
        result.emplace(name, toAnyValue(value));
    }
    return result;
}
} // namespace

ManagedObjects getManagedObjects(const std::string& service,
                                 const std::string& path)
{
    const auto raw = getRawManagedObjects(service, path);
    ManagedObjects objects;
    objects.reserve(raw.size());
    for (const auto& [objectPath, interfaces] : raw)
    {
        objects.emplace_back(objectPath, toInterfaceProperties(interfaces));
    }
    return objects;
}

void callMethod(const std::string& service, const std::string& path,
                const std::string& interface, const std::string& method,
                const std::vector<Argument>& arguments)
{
    try
    {
        callOnce(
            service, path, interface, method,
            [&](sdbus::MethodCall& call) { appendArguments(call, arguments); },
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
    return callForResult<std::int32_t>(service, path, interface, method,
                                       arguments);
}

std::uint32_t callMethodUint32(
    const std::string& service, const std::string& path,
    const std::string& interface, const std::string& method,
    const std::vector<Argument>& arguments)
{
    return callForResult<std::uint32_t>(service, path, interface, method,
                                        arguments);
}

AnyObjects getAnyManagedObjects(const std::string& service,
                                const std::string& path)
{
    AnyObjects objects;
    for (const auto& [objectPath, interfaces] :
         getRawManagedObjects(service, path))
    {
        auto& converted = objects[objectPath];
        for (const auto& [interface, properties] : interfaces)
        {
            converted.emplace(interface, toAnyProperties(properties));
        }
    }
    return objects;
}

AnyProperties getAllProperties(const std::string& service,
                               const std::string& path,
                               const std::string& interface)
{
    return translateErrors([&]() {
        return toAnyProperties(
            callForValue<std::map<std::string, sdbus::Variant>>(
                service, path, propertiesInterface, "GetAll", interface));
    });
}

void setProperty(const std::string& service, const std::string& path,
                 const std::string& interface, const std::string& property,
                 const DbusVariant& value)
{
    translateErrors([&]() {
        callOnce(
            service, path, propertiesInterface, "Set",
            [&](sdbus::MethodCall& call) {
            call << interface << property << toBindingVariant(value);
            },
            [](sdbus::MethodReply&) {});
    });
}

} // namespace hwtopod::dbus
