#pragma once

// The board matcher: which rule and which topology entry describe one VPD
// object, and the record they compose. It reads its inputs only: no lock,
// no bus, no file, no journal, and no exception for any data. The lines a
// probe logs while matching come back with the result, in their order, for
// the caller to log.

#include "common/logging.hpp"
#include "common/types.hpp"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace hwtopod::rules
{

struct MatchLine
{
    LogLevel level;
    std::string text;

    bool operator==(const MatchLine&) const = default;
};
using MatchLines = std::vector<MatchLine>;

// Logs the lines in order.
void logLines(const MatchLines& lines);

// What the machine tells the matcher besides the VPD object.
struct Selectors
{
    // Key of the topology's backplane section; empty when that section is
    // one array of entries.
    std::string backplaneType;
    std::string front = "NONE";
    std::string rear = "NONE";
    // State of the open-loop leak device, compared with an entry's OpenLoop.
    bool openLoop = false;
};

enum class Board
{
    backplane,
    riser,
};

struct BoardMatch
{
    // Logged while the rules were walked, up to the match or the end.
    MatchLines lines;
    const nlohmann::json* rule = nullptr;
    const nlohmann::json* entry = nullptr;
    // The entry's Name and Interface; empty when they are not strings.
    std::string name;
    std::string interface;
    nlohmann::json record;
    // Lines of the record's composition, logged once the object is made.
    MatchLines recordLines;
    // Set when the VPD object itself cannot be probed (a VpdName that is no
    // string); the probe reports it as an error of that object.
    std::string failure;
    // Set when the record cannot be composed (a template that is no object).
    // The probe raises it where it composes the record, after it has made
    // the board's interface.
    std::string compositionFailure;

    bool found() const
    {
        return entry != nullptr;
    }
};

// The walk of the dynamic probes: rules by POSID, then an entry of the
// topology section by location and the selectors, then the record.
BoardMatch matchDynamicBoard(
    Board board, const nlohmann::json& rules, const nlohmann::json& topology,
    const VpdProperties& vpd, std::uint64_t posId, const Selectors& selectors);

// The walks of the static probes, each with its own lines; the record is
// composed with the static wording. Every rule says whether its POSID fits;
// the backplane and the riser are then looked up by location.
BoardMatch matchStaticBackplane(
    const nlohmann::json& rules, const nlohmann::json& topology,
    const VpdProperties& vpd, std::uint64_t posId, const Selectors& selectors);
BoardMatch matchStaticRiser(const nlohmann::json& rules,
                            const nlohmann::json& topology,
                            const VpdProperties& vpd, std::uint64_t posId);

// The midplane by the power board's position id alone (PwrBpPosID): the
// first rule with that POSID decides, and a miss ends the walk.
BoardMatch matchMidplane(const nlohmann::json& rules,
                         const nlohmann::json& topology,
                         const VpdProperties& vpd, std::uint64_t posId);

// True when the object holds the key and its value equals expected, by JSON
// equality (an integer, an unsigned and a float of one value are equal). An
// element that is no object, or lacks the key, does not match.
bool keyEquals(const nlohmann::json& element, const char* key,
               const nlohmann::json& expected);

// The value of key as JSON text, "null" when it is not there.
std::string jsonText(const nlohmann::json& element, const char* key);

// "0x" and four upper-case hex digits of the low 16 bits.
std::string hex16(std::uint64_t value);

// A string property: absent gives the empty string; another type throws
// std::bad_variant_access.
std::string vpdText(const VpdProperties& vpd, const char* name);

// A JSON number as the JSON library converts it to T: an integer wraps
// modulo 2^N (-1 gives an unsigned T's largest value, 258 as a byte gives
// 2), a float loses its fraction. A float whose whole part T does not hold,
// or NaN, where that conversion is undefined, throws std::out_of_range. Any
// other JSON type converts as the library converts it, or throws
// nlohmann::json::type_error.
template <typename T>
T numberAs(const nlohmann::json& value)
{
    static_assert(std::is_integral_v<T>);
    if (value.is_number_float())
    {
        const double number = value.get<double>();
        // The bounds are exact as doubles; the comparison refuses NaN.
        const double above = std::ldexp(1.0, std::numeric_limits<T>::digits);
        const double below = std::is_signed_v<T> ? -above - 1.0 : -1.0;
        if (!(number > below && number < above))
        {
            throw std::out_of_range(
                "number " + value.dump() + " is out of range");
        }
        return static_cast<T>(number);
    }
    if (value.is_number_unsigned())
    {
        return static_cast<T>(value.get<std::uint64_t>());
    }
    if (value.is_number_integer())
    {
        return static_cast<T>(value.get<std::int64_t>());
    }
    return value.get<T>();
}

// A JSON number as the JSON library converts it to an unsigned 64-bit
// value: a negative integer wraps (-1 gives the largest value) and a
// fraction is cut off. None for a float that no such value holds (NaN,
// 2^64 and beyond, -1 and below), where that conversion is undefined. Any
// other JSON type throws nlohmann::json::type_error.
inline std::optional<std::uint64_t> wrappedUnsigned(const nlohmann::json& value)
{
    if (value.is_number_float())
    {
        const double number = value.get<double>();
        if (!(number > -1.0 && number < std::ldexp(1.0, 64)))
        {
            return std::nullopt;
        }
        return static_cast<std::uint64_t>(number);
    }
    if (value.is_number_integer() && !value.is_number_unsigned())
    {
        return static_cast<std::uint64_t>(value.get<std::int64_t>());
    }
    return value.get<std::uint64_t>();
}

} // namespace hwtopod::rules
