#pragma once

// Conversions between the binding's variant and the daemon's DbusVariant.
// Private to src/dbus.

#include "common/types.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <map>
#include <optional>
#include <string>

namespace hwtopod::dbus
{

// Empty for a D-Bus type that DbusVariant does not hold.
std::optional<DbusVariant> toDbusVariant(const sdbus::Variant& variant);

// Interfaces with their properties; properties of types DbusVariant does not
// hold are left out.
InterfaceProperties toInterfaceProperties(
    const std::map<std::string, std::map<std::string, sdbus::Variant>>& raw);

} // namespace hwtopod::dbus
