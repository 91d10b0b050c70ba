#pragma once

// The numbers a VPD object carries that the daemon acts on.

#include <algorithm>
#include <array>
#include <cstdint>

namespace hwtopod
{

// Values of VpdId: the kind of FRU, which selects its probe.
namespace vpdId
{
// A backplane whose VPD also holds the product name.
inline constexpr std::uint64_t productBackplane = 0x50;
inline constexpr std::uint64_t backplane = 0x70;
// A backplane without a presence event of its own.
inline constexpr std::uint64_t virtualBackplane = 0x74;
inline constexpr std::uint64_t powerDistributionBoard = 0x81;
inline constexpr std::uint64_t riser = 0xE0;
} // namespace vpdId

// Values of PosIdValue that the daemon knows without a rule.
namespace posId
{
// E3.S drive backplanes: one of them makes the machine's backplane type
// "E3.S".
inline constexpr auto e3sBackplanes =
    std::to_array<std::uint64_t>({0xDC, 0xDD, 0xE4});

constexpr bool isE3sBackplane(std::uint64_t value)
{
    return std::find(e3sBackplanes.begin(), e3sBackplanes.end(), value) !=
           e3sBackplanes.end();
}
} // namespace posId

} // namespace hwtopod
