// The riser read-out and the presence analysis on three register images:
// the local FPGA, the remote FPGA and its ADI space, each valid or not.
// Bytes left over after the images replace the machine's PCIe slot map, so
// that other machines' maps are covered too.

#include "fpga/fpgaImages.hpp"
#include "fuzzSupport.hpp"
#include "platforms/kelvane1u.hpp"

#include <algorithm>
#include <cstring>

namespace
{
constexpr std::uint32_t deviceIds[] = {0x00000000, 0x00000001, 0x00011408};

class ReadoutPlatform : public Platform::Kelvane1u
{
  public:
    using Kelvane1u::Kelvane1u;
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes,
                                      std::size_t size)
{
    // Byte 0: bit i says whether image i was read. Then the three images of
    // 1024 bytes each (a short input leaves the rest 0), then slot map words
    // of 8 bytes, little-endian.
    const std::uint8_t validity = size > 0 ? bytes[0] : 0;
    std::size_t at = size > 0 ? 1 : 0;
    auto& images = hwtopod::fpgaImages();
    images.clear();
    for (std::size_t i = 0; i < 3; ++i)
    {
        auto& image = images[deviceIds[i]];
        image.valid = (validity >> i & 1U) != 0;
        const std::size_t take = std::min(image.regs.size(), size - at);
        if (take > 0)
        {
            std::memcpy(image.regs.data(), bytes + at, take);
        }
        at += take;
    }

    ReadoutPlatform platform{
        Platform::Seams{.root = hwtopod::fuzz::sandboxRoot()}};
    platform.initPcieSlotMap();
    if (size - at >= sizeof(std::uint64_t))
    {
        platform.hardware.readout.pcieSlotMap.clear();
        while (size - at >= sizeof(std::uint64_t) &&
               platform.hardware.readout.pcieSlotMap.size() < 24)
        {
            std::uint64_t word = 0;
            for (std::size_t b = 0; b < sizeof(word); ++b)
            {
                word |= static_cast<std::uint64_t>(bytes[at + b]) << (8 * b);
            }
            at += sizeof(word);
            platform.hardware.readout.pcieSlotMap.push_back(
                hwtopod::PcieSlotEntry{word});
        }
    }
    platform.hardware.readout.fpgaBlock0 = images.at(0).regs.data();
    platform.hardware.readout.fpgaBlock1 = images.at(1).regs.data();

    // As the hardware thread runs them, each step guarded the same way.
    try
    {
        platform.hwDeviceDiscovery();
        platform.readRiserTopology();
        platform.checkPresence();
        platform.getSkuConfig();
    }
    catch (const std::exception&)
    {
        // Reported by the hardware thread's guard; the thread goes on.
    }
    platform.markHardwareDiscovered();
    // The closing check of what the FPGA saw and VPD did not confirm.
    platform.probeCachedVpdd();
    (void)platform.getFpgaDeviceState(18);
    return 0;
}
