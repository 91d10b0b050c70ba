#include "rules/matcher.hpp"

#include "rules/rules.hpp"

#include <algorithm>
#include <cstdio>
#include <exception>

namespace hwtopod::rules
{

namespace
{
bool containsName(const nlohmann::json& list, const std::string& name)
{
    return std::any_of(list.begin(), list.end(), [&](const auto& item) {
        return item == nlohmann::json(name);
    });
}

bool nonEmptyArray(const nlohmann::json& element, const char* key)
{
    return element.contains(key) && element.at(key).is_array() &&
           !element.at(key).empty();
}

// Whether a backplane topology entry fits; the first test that applies to
// the element decides. An element without a Location fits nothing.
bool backplaneFits(const nlohmann::json& element, std::uint64_t location,
                   std::uint64_t posId, const Selectors& selectors)
{
    if (!keyEquals(element, "Location", nlohmann::json(location)))
    {
        return false;
    }
    if (element.contains("OpenLoop"))
    {
        return element.at("OpenLoop") == nlohmann::json(selectors.openLoop);
    }
    if (element.contains("PosID"))
    {
        return element.at("PosID") == nlohmann::json(posId);
    }
    if (nonEmptyArray(element, "SkuConfig") && selectors.front != "NONE")
    {
        return containsName(element.at("SkuConfig"), selectors.front);
    }
    if (nonEmptyArray(element, "SkuConfig") && selectors.rear != "NONE")
    {
        return containsName(element.at("SkuConfig"), selectors.rear);
    }
    return true;
}

// The SKU name a riser entry is compared with, by the side its Properties
// name; empty when the entry is to be passed over.
std::string riserSku(const nlohmann::json& element, const Selectors& selectors)
{
    const auto* properties =
        element.contains("Properties") ? &element.at("Properties") : nullptr;
    const nlohmann::json side =
        properties != nullptr && properties->is_object()
            ? properties->value("Location", nlohmann::json())
            : nlohmann::json();
    if (side == "Front" && selectors.front != "NONE")
    {
        return selectors.front;
    }
    if (side == "Rear" && selectors.rear != "NONE")
    {
        return selectors.rear;
    }
    return {};
}

bool riserFits(const nlohmann::json& element, std::uint64_t location,
               std::uint64_t posId, const Selectors& selectors,
               MatchLines& lines)
{
    if (!element.contains("Location") || !element.contains("PosID") ||
        !element.at("Location").is_number() || !element.at("PosID").is_number())
    {
        return false;
    }
    const bool located = element.at("Location") == nlohmann::json(location);
    const auto& posIdValue = element.at("PosID");
    if ((selectors.rear == "NONE" && selectors.front == "NONE") ||
        !element.contains("SkuConfig"))
    {
        return located && (posIdValue == nlohmann::json(posId) ||
                           posIdValue == nlohmann::json(0));
    }
    const auto& skuConfig = element.at("SkuConfig");
    if (skuConfig.is_string())
    {
        lines.push_back({LogLevel::info, "riser[SkuConfig] is string"});
    }
    else if (skuConfig.is_object())
    {
        lines.push_back({LogLevel::info, "riser[SkuConfig] is object"});
    }
    else if (!skuConfig.is_array())
    {
        return false;
    }
    const std::string sku = riserSku(element, selectors);
    if (sku.empty() || !located || posIdValue != nlohmann::json(posId))
    {
        return false;
    }
    return skuConfig.is_array() ? containsName(skuConfig, sku)
                                : skuConfig == nlohmann::json(sku);
}

// The topology entries of the backplane section: the array under the
// machine's backplane type, or the section itself when it is not keyed. A
// type the section does not hold gives none.
const nlohmann::json& backplaneEntries(const nlohmann::json& topology,
                                       const Selectors& selectors)
{
    static const nlohmann::json none = nlohmann::json::array();
    if (selectors.backplaneType.empty())
    {
        return topology;
    }
    if (topology.is_object() && topology.contains(selectors.backplaneType))
    {
        return topology.at(selectors.backplaneType);
    }
    return none;
}

// A topology entry that is no object: the exception the probe reports for
// the rule, the library's own error, as a look-up of Location gives it.
void refuseNonObject(const nlohmann::json& element)
{
    if (!element.is_object())
    {
        (void)element.at("Location");
    }
}

// The backplane section as the static probe looks it up for a rule whose
// entry it seeks: keyed by type, a section that cannot be keyed (an array)
// throws the library's error.
const nlohmann::json& keyedBackplaneEntries(const nlohmann::json& topology,
                                            const Selectors& selectors)
{
    if (!selectors.backplaneType.empty() && !topology.is_object() &&
        !topology.is_null())
    {
        (void)topology.at(selectors.backplaneType);
    }
    return backplaneEntries(topology, selectors);
}

// Name, Interface and the record of a found entry. A Name or Interface that
// is no string makes the object fail. A record that cannot be composed (a
// template that is no object) is kept as compositionFailure, which the probe
// raises once it has made the board's interface.
void compose(BoardMatch& match, const VpdProperties& vpd,
             const char* templateKey, const CompositionLog& log)
{
    try
    {
        match.name = match.entry->at("Name").get<std::string>();
        match.interface = match.entry->at("Interface").get<std::string>();
    }
    catch (const std::exception& e)
    {
        match.failure = e.what();
        return;
    }
    try
    {
        match.record =
            composeRecord(*match.rule, templateKey, *match.entry, vpd, log);
    }
    catch (const std::exception& e)
    {
        match.compositionFailure = e.what();
    }
}

// What a probe says while it looks for a rule's entry. A line left null is
// not said.
struct EntryWording
{
    LogLevel notFoundLevel;
    const char* notFound;
    const char* found;
    // Said at CRITICAL with the exception of an entry the rule cannot use.
    const char* exception;
    // When no entry fits: the next rule is tried, or the walk ends.
    bool missEndsWalk;
};

struct Wording
{
    const char* noLocation;
    const char* found;
    EntryWording entry;
    const char* templateKey;
};

constexpr Wording backplaneWording{
    "hwtopod no BP location found on ", "Found BP POSID:",
    EntryWording{LogLevel::info, "probeBpVpddDynamic cannot find bp ", nullptr,
                 "Exception in probeBpVpddDynamic: ", false},
    "com.halvex.hwtopod.backplane"};
constexpr Wording riserWording{
    "hwtopod no RISER location found on ", "Found Riser POSID:",
    EntryWording{LogLevel::error, "Probe dynamic riser vpd, cannot find riser ",
                 nullptr, "Exception when probing dynamic riser vpd: ", false},
    "com.halvex.hwtopod.riser"};

// The static probes name themselves in the lines of their walk.
struct StaticWording
{
    const char* probe;
    const char* posIdFound;
    const char* noLocation;
    EntryWording entry;
    const char* templateKey;
    const char* sectionKey;
};

constexpr StaticWording staticBackplaneWording{
    "probeBpVpddStatic",
    "PosIdValue found: ",
    "hwtopod no BP location found on ",
    EntryWording{LogLevel::warning, "hwtopod cannot find bp ",
                 "hwtopod find bp ", nullptr, false},
    "com.halvex.hwtopod.backplane",
    "bpKey"};
constexpr StaticWording staticRiserWording{
    "probeRiserVpddStatic",
    "PosIdValue found: ",
    "hwtopod no RISER location found on ",
    EntryWording{LogLevel::info, "probeRiserVpddStatic cannot find riser ",
                 "probeRiserVpddStatic find riser ",
                 "Exception in probeRiserVpddStatic: ", false},
    "com.halvex.hwtopod.riser",
    "riserKey"};
constexpr StaticWording midplaneWording{
    "probeChassisMidplaneBaseOnPdbStatic",
    "PosID found: ",
    nullptr,
    EntryWording{LogLevel::warning, "hwtopod cannot find midplane",
                 "hwtopod find midplane",
                 "Exception in probeChassisMidplaneBaseOnPdbStatic: ", true},
    "com.halvex.hwtopod.midplane",
    "midplaneKey"};

// The location line of a rule whose POSID fits; false (and the line saying
// so) when the object has no location. Throws for a VpdName of the wrong
// type.
bool locate(const VpdProperties& vpd, LogLevel level, const char* noLocation,
            MatchLines& lines, std::uint64_t& location)
{
    auto found = vpd.find("VpdLocation");
    if (found == vpd.end())
    {
        lines.push_back({level, noLocation + vpdText(vpd, "VpdName")});
        return false;
    }
    location = readVpdNumber(found->second);
    return true;
}

// What became of one rule whose POSID fits.
enum class Outcome
{
    found,
    next,
    stop,
};

// Whether the rule's POSID is posId; a static probe says so for every rule.
bool posIdFits(const nlohmann::json& rule, std::uint64_t posId,
               const StaticWording* words, MatchLines& lines)
{
    const bool fits = keyEquals(rule, "POSID", nlohmann::json(posId));
    if (words == nullptr)
    {
        return fits;
    }
    const std::string posIdText = std::to_string(posId);
    lines.push_back({LogLevel::info, "Check with " + jsonText(rule, "Name")});
    lines.push_back(
        {LogLevel::info,
         fits ? std::string(words->probe) + " " + words->posIdFound + posIdText
              : std::string(words->probe) + " PosIdValue not match: " +
                    posIdText + "->" + jsonText(rule, "POSID")});
    return fits;
}

// The walk all probes share: the rules whose POSID is posId, in order, each
// handed to visit until one finds its entry or ends the walk. Data that make
// the VPD object itself unfit end the walk as its failure.
template <typename Visit>
BoardMatch walkRules(const nlohmann::json& rules, std::uint64_t posId,
                     const StaticWording* words, Visit&& visit)
{
    BoardMatch match;
    try
    {
        for (const auto& rule : rules)
        {
            if (!posIdFits(rule, posId, words, match.lines))
            {
                continue;
            }
            const Outcome outcome = visit(rule, match);
            if (outcome == Outcome::found)
            {
                match.rule = &rule;
            }
            if (outcome != Outcome::next)
            {
                break;
            }
        }
    }
    catch (const std::exception& e)
    {
        match.failure = e.what();
    }
    return match;
}

// The first of entries that fits. An exception of fits is an entry the rule
// cannot be used with: said at CRITICAL, and the walk goes on as after a
// miss.
template <typename Fits>
Outcome findEntry(const nlohmann::json& entries, const EntryWording& words,
                  BoardMatch& match, Fits&& fits)
{
    try
    {
        for (const auto& element : entries)
        {
            if (fits(element))
            {
                match.entry = &element;
                break;
            }
        }
    }
    catch (const std::exception& e)
    {
        if (words.exception == nullptr)
        {
            throw;
        }
        match.lines.push_back(
            {LogLevel::critical, std::string(words.exception) + e.what()});
        return words.missEndsWalk ? Outcome::stop : Outcome::next;
    }
    if (match.entry == nullptr)
    {
        match.lines.push_back({words.notFoundLevel, words.notFound});
        return words.missEndsWalk ? Outcome::stop : Outcome::next;
    }
    if (words.found != nullptr)
    {
        match.lines.push_back({LogLevel::info, words.found});
    }
    return Outcome::found;
}

// The walk of the static probes that look a board up by its location.
// entries gives the candidates of a rule once its location is known.
template <typename Entries, typename Fits>
BoardMatch matchStaticLocated(
    const StaticWording& words, const nlohmann::json& rules, Entries&& entries,
    const VpdProperties& vpd, std::uint64_t posId, Fits&& fits)
{
    auto match = walkRules(rules, posId, &words,
                           [&](const nlohmann::json&, BoardMatch& found) {
        std::uint64_t location = 0;
        if (!locate(vpd, LogLevel::warning, words.noLocation, found.lines,
                    location))
        {
            return Outcome::next;
        }
        found.lines.push_back(
            {LogLevel::info, std::string(words.probe) + " check location: " +
                                 std::to_string(location)});
        return findEntry(entries(), words.entry, found,
                         [&](const nlohmann::json& candidate) {
            return fits(candidate, nlohmann::json(location));
        });
    });
    if (match.found())
    {
        compose(match, vpd, words.templateKey,
                staticProbeLog(words.sectionKey, &match.recordLines));
    }
    return match;
}

} // namespace

bool keyEquals(const nlohmann::json& element, const char* key,
               const nlohmann::json& expected)
{
    return element.is_object() && element.contains(key) &&
           element.at(key) == expected;
}

std::string jsonText(const nlohmann::json& element, const char* key)
{
    if (element.is_object() && element.contains(key))
    {
        return element.at(key).dump();
    }
    return "null";
}

std::string hex16(std::uint64_t value)
{
    char text[8];
    std::snprintf(text, sizeof(text), "0x%04X",
                  static_cast<unsigned>(value & 0xFFFF));
    return text;
}

void logLines(const MatchLines& lines)
{
    for (const auto& line : lines)
    {
        LogLine(line.level) << line.text;
    }
}

std::string vpdText(const VpdProperties& vpd, const char* name)
{
    auto found = vpd.find(name);
    return found == vpd.end() ? std::string()
                              : std::get<std::string>(found->second);
}

BoardMatch matchDynamicBoard(
    Board board, const nlohmann::json& rules, const nlohmann::json& topology,
    const VpdProperties& vpd, std::uint64_t posId, const Selectors& selectors)
{
    const Wording& words =
        board == Board::backplane ? backplaneWording : riserWording;
    const nlohmann::json& entries =
        board == Board::backplane ? backplaneEntries(topology, selectors)
                                  : topology;
    auto fits = [&](const nlohmann::json& element, std::uint64_t location,
                    MatchLines& lines) {
        refuseNonObject(element);
        return board == Board::backplane
                   ? backplaneFits(element, location, posId, selectors)
                   : riserFits(element, location, posId, selectors, lines);
    };
    auto match = walkRules(rules, posId, nullptr,
                           [&](const nlohmann::json& rule, BoardMatch& found) {
        std::uint64_t location = 0;
        if (!locate(vpd, LogLevel::info, words.noLocation, found.lines,
                    location))
        {
            return Outcome::next;
        }
        found.lines.push_back(
            {LogLevel::info,
             words.found + hex16(posId) + "(" + std::to_string(posId) +
                 ") location: " + std::to_string(location) +
                 " name: " + jsonText(rule, "Name")});
        return findEntry(entries, words.entry, found,
                         [&](const nlohmann::json& element) {
            return fits(element, location, found.lines);
        });
    });
    if (match.found())
    {
        compose(match, vpd, words.templateKey,
                board == Board::backplane
                    ? dynamicBackplaneLog(&match.recordLines)
                    : dynamicRiserLog(&match.recordLines));
    }
    return match;
}

BoardMatch matchStaticBackplane(
    const nlohmann::json& rules, const nlohmann::json& topology,
    const VpdProperties& vpd, std::uint64_t posId, const Selectors& selectors)
{
    const nlohmann::json wanted(posId);
    return matchStaticLocated(
        staticBackplaneWording, rules,
        [&]() -> const nlohmann::json& {
            return keyedBackplaneEntries(topology, selectors);
        },
        vpd, posId,
        [&](const nlohmann::json& candidate, const nlohmann::json& location) {
        return keyEquals(candidate, "Location", location) &&
               (!candidate.contains("PosID") ||
                candidate.at("PosID") == wanted);
        });
}

BoardMatch matchStaticRiser(const nlohmann::json& rules,
                            const nlohmann::json& topology,
                            const VpdProperties& vpd, std::uint64_t posId)
{
    const nlohmann::json wanted(posId);
    return matchStaticLocated(
        staticRiserWording, rules,
        [&]() -> const nlohmann::json& { return topology; }, vpd, posId,
        [&](const nlohmann::json& candidate, const nlohmann::json& location) {
        refuseNonObject(candidate);
        return keyEquals(candidate, "Location", location) &&
               (keyEquals(candidate, "PosID", wanted) ||
                keyEquals(candidate, "PosID", nlohmann::json(0)));
        });
}

BoardMatch matchMidplane(const nlohmann::json& rules,
                         const nlohmann::json& topology,
                         const VpdProperties& vpd, std::uint64_t posId)
{
    const nlohmann::json wanted(posId);
    auto match = walkRules(rules, posId, &midplaneWording,
                           [&](const nlohmann::json&, BoardMatch& found) {
        return findEntry(topology, midplaneWording.entry, found,
                         [&](const nlohmann::json& candidate) {
            if (!candidate.is_object())
            {
                // The library's own error, as a look-up of the key gives it.
                (void)candidate.at("PwrBpPosID");
            }
            return keyEquals(candidate, "PwrBpPosID", wanted);
        });
    });
    if (match.found())
    {
        compose(match, vpd, midplaneWording.templateKey,
                staticProbeLog(midplaneWording.sectionKey, &match.recordLines));
    }
    return match;
}

} // namespace hwtopod::rules
