#pragma once

#include "dbus/bus.hpp"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Platform
{

// The firmware build identifier of /etc/os-release, or the default one.
std::string readBuildId();

// MiniVersion: the template's two-digit number made even or odd with the
// build, followed by the template's letter.
std::string miniVersionFor(const std::string& templateVersion,
                           const std::string& buildId);

// One PSU object of the PSU file: its Name, its Type and the properties to
// register, in their order.
struct PsuObject
{
    std::string name;
    std::string type;
    std::vector<std::pair<std::string, hwtopod::dbus::PropertyValue>>
        properties;
};

// What one element of the PSU file publishes: nothing for an element that
// is no object or lacks Name or Type (quietly) or whose Name or Type would
// leave its place (one ERROR line). Throws nlohmann::json::exception for a
// value of the wrong JSON type. Needs no bus.
std::optional<PsuObject> psuObject(const nlohmann::json& element);

} // namespace Platform
