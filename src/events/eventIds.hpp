#pragma once

// Short ids of the records that readers of the journal pick out by id, and
// how a record's arguments are joined: written by the emitters, read back
// by the inspector, so that both sides name them once.

#include <string_view>

namespace hwtopod::eventId
{

inline constexpr std::string_view riserWrongLocation = "TKRMBIO0035G";
// A cable event whose detail names both ends ("cable::location").
inline constexpr std::string_view cableMisconnectedBetween = "TKRMBIO0036G";
inline constexpr std::string_view cableMisconnected = "TKRMBIO0037G";
inline constexpr std::string_view riserCableNotConnected = "TKRMBIO0038G";
inline constexpr std::string_view riserCableMisconnected = "TKRMBIO0039G";
inline constexpr std::string_view namedCableNotConnected = "TKRMBIO0040G";
inline constexpr std::string_view namedCableMisconnected = "TKRMBIO0041G";
inline constexpr std::string_view notDetected = "TKRMBSS0012G";

} // namespace hwtopod::eventId

namespace hwtopod
{
inline constexpr std::string_view eventArgumentSeparator = "::";
} // namespace hwtopod
