#pragma once

// Named single-bit devices in the FPGA registers.

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace hwtopod
{

struct FpgaDeviceBit
{
    std::uint32_t fpgaDevice;
    std::string name;
    std::uint32_t block;
    std::uint32_t offset;
    std::uint32_t bit;
    // The device's state is inverted XOR the bit; true means present.
    bool inverted;
    // The last state read.
    bool present;
    // The device's number and its DeviceType value; kept with the row, not
    // read by the daemon.
    std::uint32_t index;
    std::uint32_t type;
};

// Keys of the platform's fpgaDevices map. Three groups share it: the rows
// of fpgaDeviceTable, riserKeyBase + r for riser r, slotKeyBase + s for the
// adapter in PCIe slot s.
namespace deviceKey
{
inline constexpr std::uint32_t cpu1 = 0;
inline constexpr std::uint32_t cpu2 = 1;
inline constexpr std::uint32_t ocp0 = 3;
inline constexpr std::uint32_t ocp1 = 4;
inline constexpr std::uint32_t x8FrontOcp = 5;
inline constexpr std::uint32_t x16FrontOcp = 6;
inline constexpr std::uint32_t frontPanel = 9;
inline constexpr std::uint32_t pong = 10;
inline constexpr std::uint32_t intrusionConnector = 11;
inline constexpr std::uint32_t frontIoCable = 87;
inline constexpr std::uint32_t kelvaneOpenLoopLeak = 89;
inline constexpr std::uint32_t openLoopLeak = 90;
inline constexpr std::uint32_t riserKeyBase = 17;
inline constexpr std::uint32_t slotKeyBase = 40;
} // namespace deviceKey

// One row of fpgaDeviceTable as the machine defines it.
struct FpgaDeviceRow
{
    std::uint32_t key;
    std::uint32_t fpgaDevice;
    std::string_view name;
    std::uint32_t block;
    std::uint32_t offset;
    std::uint32_t bit;
    bool inverted;
    std::uint32_t index;
    std::uint32_t type;
};

// By ascending key; all rows are on remote FPGA 0 (device 1).
// clang-format off
inline constexpr auto fpgaDeviceRows = std::to_array<FpgaDeviceRow>({
    {deviceKey::cpu1, 1, "CPU_1", 28, 7, 3, true, 1, 12},
    {deviceKey::cpu2, 1, "CPU_2", 28, 8, 3, true, 2, 12},
    {deviceKey::ocp0, 1, "OCP_0", 12, 6, 0, false, 0, 20},
    {deviceKey::ocp1, 1, "OCP_1", 12, 6, 1, false, 1, 20},
    {deviceKey::x8FrontOcp, 1, "x8_FRONT_OCP", 12, 6, 3, false, 0, 0},
    {deviceKey::x16FrontOcp, 1, "x16_FRONT_OCP", 12, 6, 2, false, 0, 0},
    {deviceKey::frontPanel, 1, "FRONT_PANEL", 18, 14, 0, true, 0, 33},
    {deviceKey::pong, 1, "PONG", 12, 5, 5, false, 0, 0},
    {deviceKey::intrusionConnector, 1, "INTRUSSION_CONN", 12, 6, 6, false, 0, 0},
    {deviceKey::frontIoCable, 1, "FRONT_IO_CABLE", 12, 5, 7, false, 0, 0},
    {deviceKey::kelvaneOpenLoopLeak, 1, "KELVANE open loop liquid leak", 12, 8, 7, false, 0, 6},
    {deviceKey::openLoopLeak, 1, "open loop liquid leak", 12, 8, 6, false, 0, 6},
});
// clang-format on

// Whether key is one of fpgaDeviceTable's.
constexpr bool isDeviceTableKey(std::uint32_t key)
{
    for (const auto& row : fpgaDeviceRows)
    {
        if (row.key == key)
        {
            return true;
        }
    }
    return false;
}

// The 12 rows by key; the keys are also the device keys of fpgaDevices.
// Written (present) and read on the hardware thread only.
std::map<std::uint32_t, FpgaDeviceBit>& fpgaDeviceTable();

} // namespace hwtopod
