#pragma once

#include "dbus/bus.hpp"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace Platform
{

// The typed value that addJsonProperty registers for a JSON value under key,
// or nothing: empty arrays, objects, arrays of objects, booleans or floats
// in arrays, and values of mixed or unexpected types, the last two with
// their warning. Needs no bus.
std::optional<hwtopod::dbus::PropertyValue> jsonPropertyValue(
    const std::string& key, const nlohmann::json& value);

} // namespace Platform
