#include "rules/matcher.hpp"

#include "rules/rules.hpp"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <stdexcept>

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
// the rule.
void refuseNonObject(Board board, const nlohmann::json& element)
{
    if (element.is_object())
    {
        return;
    }
    if (board == Board::riser)
    {
        throw std::invalid_argument(
            "riser topology entry is no object: " + element.dump());
    }
    // The library's own error, as a look-up of Location gives it.
    (void)element.at("Location");
}

// Name, Interface and the record of a found entry. A Name or Interface that
// is no string, like a template that is no object, makes the object fail.
void compose(BoardMatch& match, const VpdProperties& vpd,
             const char* templateKey, const CompositionLog& log)
{
    try
    {
        match.name = match.entry->at("Name").get<std::string>();
        match.interface = match.entry->at("Interface").get<std::string>();
        match.record =
            composeRecord(*match.rule, templateKey, *match.entry, vpd, log);
    }
    catch (const std::exception& e)
    {
        match.failure = e.what();
    }
}

struct Wording
{
    const char* noLocation;
    const char* found;
    LogLevel notFoundLevel;
    const char* notFound;
    const char* exception;
    const char* templateKey;
};

constexpr Wording backplaneWording{
    "hwtopod no BP location found on ",
    "Found BP POSID:",
    LogLevel::info,
    "probeBpVpddDynamic cannot find bp ",
    "Exception in probeBpVpddDynamic: ",
    "com.halvex.hwtopod.backplane"};
constexpr Wording riserWording{
    "hwtopod no RISER location found on ",
    "Found Riser POSID:",
    LogLevel::error,
    "Probe dynamic riser vpd, cannot find riser ",
    "Exception when probing dynamic riser vpd: ",
    "com.halvex.hwtopod.riser"};

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
    BoardMatch match;
    try
    {
        for (const auto& rule : rules)
        {
            std::uint64_t location = 0;
            if (!keyEquals(rule, "POSID", nlohmann::json(posId)) ||
                !locate(vpd, LogLevel::info, words.noLocation, match.lines,
                        location))
            {
                continue;
            }
            match.lines.push_back(
                {LogLevel::info,
                 words.found + hex16(posId) + "(" + std::to_string(posId) +
                     ") location: " + std::to_string(location) +
                     " name: " + jsonText(rule, "Name")});
            bool refused = false;
            for (const auto& element : entries)
            {
                try
                {
                    refuseNonObject(board, element);
                    if (board == Board::backplane
                            ? backplaneFits(element, location, posId, selectors)
                            : riserFits(element, location, posId, selectors,
                                        match.lines))
                    {
                        match.entry = &element;
                        break;
                    }
                }
                catch (const std::exception& e)
                {
                    // The rule cannot be used; the next one is tried.
                    match.lines.push_back(
                        {LogLevel::critical,
                         std::string(words.exception) + e.what()});
                    refused = true;
                    break;
                }
            }
            if (match.entry == nullptr)
            {
                if (!refused)
                {
                    match.lines.push_back(
                        {words.notFoundLevel, words.notFound});
                }
                continue;
            }
            match.rule = &rule;
            compose(match, vpd, words.templateKey,
                    board == Board::backplane
                        ? dynamicBackplaneLog(&match.recordLines)
                        : dynamicRiserLog(&match.recordLines));
            return match;
        }
    }
    catch (const std::exception& e)
    {
        match.failure = e.what();
    }
    return match;
}

BoardMatch matchStaticBackplane(
    const nlohmann::json& rules, const nlohmann::json& topology,
    const VpdProperties& vpd, std::uint64_t posId, const Selectors& selectors)
{
    BoardMatch match;
    auto& lines = match.lines;
    const nlohmann::json wanted(posId);
    const std::string posIdText = std::to_string(posId);
    try
    {
        for (const auto& rule : rules)
        {
            lines.push_back(
                {LogLevel::info, "Check with " + jsonText(rule, "Name")});
            if (!keyEquals(rule, "POSID", wanted))
            {
                lines.push_back(
                    {LogLevel::info,
                     "probeBpVpddStatic PosIdValue not match: " + posIdText +
                         "->" + jsonText(rule, "POSID")});
                continue;
            }
            lines.push_back(
                {LogLevel::info,
                 "probeBpVpddStatic PosIdValue found: " + posIdText});
            std::uint64_t location = 0;
            if (!locate(vpd, LogLevel::warning,
                        "hwtopod no BP location found on ", lines, location))
            {
                continue;
            }
            lines.push_back(
                {LogLevel::info, "probeBpVpddStatic check location: " +
                                     std::to_string(location)});
            for (const auto& candidate : backplaneEntries(topology, selectors))
            {
                if (keyEquals(candidate, "Location",
                              nlohmann::json(location)) &&
                    (!candidate.contains("PosID") ||
                     candidate.at("PosID") == wanted))
                {
                    match.entry = &candidate;
                    break;
                }
            }
            if (match.entry == nullptr)
            {
                lines.push_back({LogLevel::warning, "hwtopod cannot find bp "});
                continue;
            }
            lines.push_back({LogLevel::info, "hwtopod find bp "});
            match.rule = &rule;
            compose(match, vpd, "com.halvex.hwtopod.backplane",
                    staticProbeLog("bpKey", &match.recordLines));
            return match;
        }
    }
    catch (const std::exception& e)
    {
        match.failure = e.what();
    }
    return match;
}

} // namespace hwtopod::rules
