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

using hwtopod::nonAlnumToUnderscores;
using hwtopod::rules::hex16;
using hwtopod::rules::jsonText;
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

} // namespace Platform::probe
