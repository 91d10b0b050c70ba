#pragma once

// Small pieces shared by the board probes.

#include "common/names.hpp"
#include "common/types.hpp"
#include "rules/vpdValue.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
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

// The object path element made from a topology entry's Name and its
// Interface, both from a rule file: true when both can be published, else
// one ERROR line says which was refused. A Name with a "/" would put the
// board elsewhere in the tree, one with characters D-Bus forbids would fail
// on the bus; either leaves the board out.
// The Properties of a topology entry, null when it has none.
inline const nlohmann::json& entryProperties(const nlohmann::json& entry)
{
    static const nlohmann::json none;
    return entry.contains("Properties") ? entry.at("Properties") : none;
}

inline bool acceptEntryNames(const std::string& pathElement,
                             const std::string& interface)
{
    return hwtopod::acceptPathElement("topology entry Name", pathElement) &&
           hwtopod::acceptInterfaceName("topology entry Interface", interface);
}

// A number of a record as T. Integers convert as the JSON library converts
// them; a float outside T's range (from a rule file or a VPD double) throws
// std::out_of_range instead of a conversion whose result is undefined; any
// other JSON type throws nlohmann::json::type_error. The probe's guard
// reports either.
template <typename T>
T numberAs(const nlohmann::json& value)
{
    if (value.is_number_float())
    {
        const double number = value.get<double>();
        const double limit = std::ldexp(1.0, std::numeric_limits<T>::digits);
        if (!(number > -1.0 && number < limit))
        {
            throw std::out_of_range(
                "number " + value.dump() + " is out of range");
        }
        return static_cast<T>(number);
    }
    return value.get<T>();
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
