#pragma once

#include <cstdint>
#include <vector>

namespace hwtopod
{

// The index of a row whose event names no CPU.
inline constexpr std::uint8_t noCpuIndex = 255;

// One power-good, voltage regulator or thermal trip signal: its GPIO line,
// its bit in an FPGA register image, and the event to send when it is active.
struct FpgaGpioEntry
{
    std::uint32_t fpgaDevice;
    const char* lineName;
    const char* eventId;
    const char* deviceName;
    const char* deviceClass;
    std::uint8_t index;
    bool monitored;
    std::uint32_t block;
    std::uint32_t offset;
    std::uint8_t bit;
    bool activeLevel;
    const char* deassertEventId;
};

// All rows, in table order.
const std::vector<FpgaGpioEntry>& fpgaGpioTable();

} // namespace hwtopod
