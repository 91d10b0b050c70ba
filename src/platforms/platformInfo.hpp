#pragma once

#include "common/paths.hpp"
#include "dbus/bus.hpp"

#include <nlohmann/json.hpp>

#include <functional>
#include <optional>
#include <string>

namespace Platform
{

// The firmware build identifier of /etc/os-release below root, or the
// default one.
std::string readBuildId(const hwtopod::Root& root);

// MiniVersion: the template's two-digit number made even or odd with the
// build, followed by the template's letter.
std::string miniVersionFor(const std::string& templateVersion,
                           const std::string& buildId);

// Where one element of the PSU file is published: its Name and its Type.
struct PsuObject
{
    std::string name;
    std::string type;
};

// Nothing for an element that is no object or lacks Name or Type (quietly)
// or whose Name or Type would leave its place (one ERROR line). Throws
// nlohmann::json::exception for a Name or Type that is no string. Needs no
// bus.
std::optional<PsuObject> psuObject(const nlohmann::json& element);

// Hands the further keys that the element holds to `add`, in the order they
// are registered, each converted when it is reached. A value of the wrong
// JSON type throws nlohmann::json::exception, a number that is no count of
// 0 to 2^64-1 std::out_of_range naming the key and the value; the keys
// before it have been handed over by then.
void forEachPsuProperty(
    const nlohmann::json& element,
    const std::function<void(const std::string& key,
                             hwtopod::dbus::PropertyValue value)>& add);

} // namespace Platform
