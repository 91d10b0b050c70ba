#pragma once

// A plain client of the private bus, for reading back what the daemon
// publishes.

#include <sdbus-c++/sdbus-c++.h>

#include <map>
#include <string>

namespace hwtopod::test
{

using ManagedObjectsReply =
    std::map<sdbus::ObjectPath,
             std::map<std::string, std::map<std::string, sdbus::Variant>>>;

inline std::map<std::string, sdbus::Variant> getAllProperties(
    const std::string& service, const std::string& path,
    const std::string& interface)
{
    auto connection = sdbus::createSystemBusConnection();
    auto proxy = sdbus::createProxy(*connection, service, path);
    std::map<std::string, sdbus::Variant> values;
    proxy->callMethod("GetAll")
        .onInterface("org.freedesktop.DBus.Properties")
        .withArguments(interface)
        .storeResultsTo(values);
    return values;
}

inline sdbus::Variant getProperty(
    const std::string& service, const std::string& path,
    const std::string& interface, const std::string& property)
{
    return getAllProperties(service, path, interface).at(property);
}

inline ManagedObjectsReply getManagedObjects(const std::string& service)
{
    auto connection = sdbus::createSystemBusConnection();
    auto proxy = sdbus::createProxy(*connection, service, "/");
    ManagedObjectsReply objects;
    proxy->callMethod("GetManagedObjects")
        .onInterface("org.freedesktop.DBus.ObjectManager")
        .storeResultsTo(objects);
    return objects;
}

} // namespace hwtopod::test
