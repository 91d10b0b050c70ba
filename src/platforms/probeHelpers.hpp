#pragma once

// Small pieces shared by the board probes.

#include "common/names.hpp"
#include "common/types.hpp"
#include "rules/matcher.hpp"
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

using hwtopod::rules::hex16;
using hwtopod::rules::jsonText;
using hwtopod::nonAlnumToUnderscores;
using hwtopod::rules::keyEquals;
using hwtopod::rules::numberAs;
using hwtopod::rules::vpdText;

inline std::string blanksToUnderscores(std::string text)
{
    std::replace(text.begin(), text.end(), ' ', '_');
    return text;
}

// The Properties of a topology entry, null when it has none.
inline const nlohmann::json& entryProperties(const nlohmann::json& entry)
{
    static const nlohmann::json none;
    return entry.contains("Properties") ? entry.at("Properties") : none;
}

// The object path element made from a topology entry's Name and its
// Interface, both from a rule file: true when both can be published, else
// one ERROR line says which was refused. A Name with a "/" would put the
// board elsewhere in the tree, one with characters D-Bus forbids would fail
// on the bus; either leaves the D-Bus object out.
inline bool acceptEntryNames(const std::string& pathElement,
                             const std::string& interface)
{
    return hwtopod::acceptPathElement("topology entry Name", pathElement) &&
           hwtopod::acceptInterfaceName("topology entry Interface", interface);
}

} // namespace Platform::probe
