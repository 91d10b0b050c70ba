#pragma once

// A plain client of the private bus, for reading back what the daemon
// publishes: the bus layer's calls for tools, each on a connection of its
// own.

#include "dbus/client.hpp"

#include <string>

namespace hwtopod::test
{

using dbus::getAllProperties;

inline dbus::AnyValue getProperty(
    const std::string& service, const std::string& path,
    const std::string& interface, const std::string& property)
{
    return getAllProperties(service, path, interface).at(property);
}

inline dbus::AnyObjects getManagedObjects(const std::string& service)
{
    return dbus::getAnyManagedObjects(service, "/");
}

} // namespace hwtopod::test
