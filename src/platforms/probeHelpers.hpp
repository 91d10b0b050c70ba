#pragma once

// Small pieces shared by the board probes.

#include "common/types.hpp"
#include "rules/vpdValue.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>

namespace Platform::probe
{

// True when the object holds the key and its value equals expected, by JSON
// equality (an integer, an unsigned and a float of one value are equal). An
// element that is no object, or lacks the key, does not match.
inline bool keyEquals(const nlohmann::json& element, const char* key,
                      const nlohmann::json& expected)
{
    return element.is_object() && element.contains(key) &&
           element.at(key) == expected;
}

// The value of key as JSON text, "null" when it is not there.
inline std::string jsonText(const nlohmann::json& element, const char* key)
{
    if (element.is_object() && element.contains(key))
    {
        return element.at(key).dump();
    }
    return "null";
}

inline std::string blanksToUnderscores(std::string text)
{
    std::replace(text.begin(), text.end(), ' ', '_');
    return text;
}

inline std::string nonAlnumToUnderscores(std::string text)
{
    std::replace_if(
        text.begin(), text.end(),
        [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return text;
}

// A string property; throws std::bad_variant_access for another type and
// std::out_of_range when absent.
inline const std::string& vpdText(const hwtopod::VpdProperties& vpd,
                                  const char* name)
{
    return std::get<std::string>(vpd.at(name));
}

// "0x" and four upper-case hex digits of the low 16 bits.
inline std::string hex16(std::uint64_t value)
{
    char text[8];
    std::snprintf(text, sizeof(text), "0x%04X",
                  static_cast<unsigned>(value & 0xFFFF));
    return text;
}

} // namespace Platform::probe
