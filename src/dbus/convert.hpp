#pragma once

// Conversions between the binding's values and the daemon's own. Private to
// src/dbus.

#include "bus.hpp"
#include "client.hpp"
#include "common/types.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <nlohmann/json.hpp>

#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace hwtopod::dbus
{

// The D-Bus signature of each value type the daemon and its stand-ins use.
template <typename T>
constexpr const char* signatureOfType()
{
    if constexpr (std::is_same_v<T, std::string>)
    {
        return "s";
    }
    else if constexpr (std::is_same_v<T, bool>)
    {
        return "b";
    }
    else if constexpr (std::is_same_v<T, std::uint8_t>)
    {
        return "y";
    }
    else if constexpr (std::is_same_v<T, std::int16_t>)
    {
        return "n";
    }
    else if constexpr (std::is_same_v<T, std::uint16_t>)
    {
        return "q";
    }
    else if constexpr (std::is_same_v<T, std::int32_t>)
    {
        return "i";
    }
    else if constexpr (std::is_same_v<T, std::uint32_t>)
    {
        return "u";
    }
    else if constexpr (std::is_same_v<T, std::int64_t>)
    {
        return "x";
    }
    else if constexpr (std::is_same_v<T, std::uint64_t>)
    {
        return "t";
    }
    else if constexpr (std::is_same_v<T, double>)
    {
        return "d";
    }
    else if constexpr (std::is_same_v<T, std::vector<std::string>>)
    {
        return "as";
    }
    else if constexpr (std::is_same_v<T, std::vector<std::uint8_t>>)
    {
        return "ay";
    }
    else if constexpr (std::is_same_v<T, std::vector<std::int64_t>>)
    {
        return "ax";
    }
    else if constexpr (std::is_same_v<T, std::vector<std::uint64_t>>)
    {
        return "at";
    }
    else
    {
        static_assert(!sizeof(T), "no D-Bus signature for this type");
    }
}

template <typename Variant>
std::string signatureOfValue(const Variant& value)
{
    return std::visit(
        [](const auto& v) {
        return std::string(signatureOfType<std::decay_t<decltype(v)>>());
        },
        value);
}

Error toError(const sdbus::Error& error);

// Runs the function; an error of the binding comes out as Error.
template <typename F>
auto translateErrors(F&& function)
{
    try
    {
        return function();
    }
    catch (const sdbus::Error& e)
    {
        throw toError(e);
    }
}

// Empty for a D-Bus type that DbusVariant does not hold.
std::optional<DbusVariant> toDbusVariant(const sdbus::Variant& variant);

sdbus::Variant toBindingVariant(const DbusVariant& value);

// Interfaces with their properties; properties of types DbusVariant does not
// hold are left out.
InterfaceProperties toInterfaceProperties(
    const std::map<std::string, std::map<std::string, sdbus::Variant>>& raw);

// Any value with its signature; its content as JSON for a basic type or an
// array of one, else null.
AnyValue toAnyValue(const sdbus::Variant& variant);

// The complete types of a signature made of basic types and arrays of them.
std::vector<std::string> completeTypes(const std::string& signature);

// Reads the next value of the message, of one of DbusVariant's signatures.
// Throws Error for another signature.
DbusVariant readValue(sdbus::Message& message, const std::string& signature);

void appendValue(sdbus::Message& message, const DbusVariant& value);

} // namespace hwtopod::dbus
