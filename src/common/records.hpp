#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace hwtopod
{

// A named device state of the platform's device table.
struct DeviceState
{
    std::string name;
    bool state = false;
};

// The 4-byte riser status of one slot position, as it stands in the FPGA's
// ADI space.
struct RiserTopologyEntry
{
    std::array<std::uint8_t, 4> bytes{};

    std::uint8_t aExpected() const
    {
        return bytes[0] & 0x0F;
    }
    std::uint8_t bExpected() const
    {
        return bytes[1] & 0x0F;
    }
    std::uint8_t aActual() const
    {
        return bytes[2] & 0x0F;
    }
    std::uint8_t bActual() const
    {
        return (bytes[2] >> 4) & 0x0F;
    }
    std::uint8_t status() const
    {
        return bytes[3];
    }
    std::uint8_t riserId() const
    {
        return (bytes[3] >> 4) & 0x0F;
    }
    std::uint8_t cageId() const
    {
        return (bytes[3] >> 2) & 0x03;
    }
    std::uint8_t cageMatch() const
    {
        return (bytes[3] >> 1) & 0x01;
    }
    std::uint8_t cableMatch() const
    {
        return bytes[3] & 0x01;
    }
    void setCageMatch()
    {
        bytes[3] |= 0x02;
    }
    void setCableMatch()
    {
        bytes[3] |= 0x01;
    }
};
static_assert(sizeof(RiserTopologyEntry) == 4);

// One word of the machine's PCIe slot map.
struct PcieSlotEntry
{
    std::uint64_t word = 0;

    constexpr unsigned slot() const
    {
        return word & 0x3F;
    }
    constexpr unsigned device() const
    {
        return (word >> 6) & 0x0F;
    }
    constexpr unsigned riser() const
    {
        return (word >> 10) & 0x3F;
    }
    constexpr bool bit(unsigned n) const
    {
        return ((word >> n) & 1U) != 0;
    }
    constexpr bool isRiser() const
    {
        return riser() != 0 || bit(20);
    }
    constexpr bool isCff() const
    {
        return bit(22);
    }
    constexpr bool isOcp() const
    {
        return bit(21);
    }
    constexpr bool checksCage() const
    {
        return bit(28);
    }
    constexpr bool checksCable() const
    {
        return bit(29);
    }
};

} // namespace hwtopod
