#pragma once

// The cached FPGA register images and the named-bit reads over them.

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <string_view>

namespace hwtopod
{

struct FpgaDeviceNode
{
    std::uint32_t id;
    std::string_view path;
};

// One register space: 64 blocks of 16 bytes.
struct FpgaImage
{
    bool valid = false;
    std::array<std::uint8_t, 1024> regs{};
};

// The three register spaces, in read order: 0 the local FPGA, 1 remote FPGA
// 0, 0x00011408 the ADI space of remote FPGA 0.
std::span<const FpgaDeviceNode> fpgaDeviceNodes();

// Process-wide cache of the register spaces by device id; written and read
// on the hardware thread.
std::map<std::uint32_t, FpgaImage>& fpgaImages();

// 0 and *value set to the bit on success, -1 when out of bounds, the device
// is unknown or its image was not read. Throws std::out_of_range when a
// known device has no image entry at all.
int readFpgaDeviceBit(std::uint32_t fpgaDevice, std::uint32_t block,
                      std::uint32_t offset, std::uint32_t bit,
                      std::uint8_t* value);

} // namespace hwtopod
