#pragma once

// Named single-bit devices in the FPGA registers.

#include <cstdint>
#include <map>
#include <string>

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

// The 12 rows by key; the keys are also the device keys of fpgaDevices.
// Written (present) and read on the hardware thread only.
std::map<std::uint32_t, FpgaDeviceBit>& fpgaDeviceTable();

} // namespace hwtopod
