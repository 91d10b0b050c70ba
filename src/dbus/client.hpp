#pragma once

// Synchronous calls to other services, each on a temporary connection of its
// own. The property and introspection calls never throw: a failure is logged
// and turned into a neutral result.

#include "common/types.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace hwtopod::dbus
{

// Orders the synchronous client calls of the daemon against each other.
extern std::mutex dbusClientMutex;

// Reads a property as T, std::uint64_t (the number form) or std::string
// (the string form). A failure, or a property that holds another type, gives
// 0 or the empty string.
template <typename T>
T getPropertyValue(const std::string& service, const std::string& path,
                   const std::string& interface, const std::string& property);

extern template std::uint64_t getPropertyValue<std::uint64_t>(
    const std::string&, const std::string&, const std::string&,
    const std::string&);
extern template std::string getPropertyValue<std::string>(
    const std::string&, const std::string&, const std::string&,
    const std::string&);

// Sets IpmiFruName on the VPD service.
void setPropertyValue(const std::string& path, const std::string& interface,
                      const std::string& value);

// Interface names of an object, the standard ones left out; empty on failure.
std::vector<std::string> getDbusInterfaces(const std::string& service,
                                           const std::string& path);

// Interface names of an introspection text, as getDbusInterfaces takes them.
std::vector<std::string> interfacesOfIntrospection(const std::string& xml);

using ManagedObjects = std::vector<std::pair<std::string, InterfaceProperties>>;

// GetManagedObjects of a service's object manager. Throws Error. Does not
// take dbusClientMutex.
ManagedObjects getManagedObjects(const std::string& service,
                                 const std::string& path);

using Argument = std::variant<std::string, std::uint32_t, bool>;

// A blocking method call whose reply is ignored. Throws Error. The caller
// holds dbusClientMutex where it needs to.
void callMethod(const std::string& service, const std::string& path,
                const std::string& interface, const std::string& method,
                const std::vector<Argument>& arguments);

// A blocking method call whose reply is one int32, or one uint32. Throws
// Error.
std::int32_t callMethodInt32(
    const std::string& service, const std::string& path,
    const std::string& interface, const std::string& method,
    const std::vector<Argument>& arguments);
std::uint32_t callMethodUint32(
    const std::string& service, const std::string& path,
    const std::string& interface, const std::string& method,
    const std::vector<Argument>& arguments);

// The calls below are for tools and tests, which show whatever a service
// publishes; each throws Error, with the bus error's name and text.

// A value of any D-Bus type: its signature, and its content as JSON when it
// is of a basic type or an array of one, else null.
struct AnyValue
{
    std::string signature;
    nlohmann::json content;
};

using AnyProperties = std::map<std::string, AnyValue>;

// Object paths, each with its interfaces and their properties.
using AnyObjects = std::map<std::string, std::map<std::string, AnyProperties>>;

AnyObjects getAnyManagedObjects(const std::string& service,
                                const std::string& path);

// GetAll of one interface.
AnyProperties getAllProperties(const std::string& service,
                               const std::string& path,
                               const std::string& interface);

// Set of one property.
void setProperty(const std::string& service, const std::string& path,
                 const std::string& interface, const std::string& property,
                 const DbusVariant& value);

} // namespace hwtopod::dbus
