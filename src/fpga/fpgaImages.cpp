#include "fpgaImages.hpp"

#include "common/logging.hpp"

namespace hwtopod
{

namespace
{
constexpr auto nodes = std::to_array<FpgaDeviceNode>({
    {0x00000000, "/dev/fpga-cdev"},
    {0x00000001, "/dev/fpga-r0"},
    {0x00011408, "/dev/fpga-r0-adi"},
});

// Each space is read once into its image, by the kind its id names: 0 the
// local FPGA, 1 to 3 a remote one, above that an ADI space whose bits 16 to
// 23 hold the remote number plus 1.
constexpr bool nodesReadable()
{
    for (std::size_t i = 0; i < nodes.size(); ++i)
    {
        const std::uint32_t id = nodes[i].id;
        if (id > 3 && ((id >> 16) & 0xFF) == 0)
        {
            return false;
        }
        for (std::size_t j = 0; j < i; ++j)
        {
            if (nodes[j].id == id)
            {
                return false;
            }
        }
    }
    return true;
}
static_assert(nodesReadable());
} // namespace

std::span<const FpgaDeviceNode> fpgaDeviceNodes()
{
    return nodes;
}

std::map<std::uint32_t, FpgaImage>& fpgaImages()
{
    static std::map<std::uint32_t, FpgaImage> images;
    return images;
}

int readFpgaDeviceBit(std::uint32_t fpgaDevice, std::uint32_t block,
                      std::uint32_t offset, std::uint32_t bit,
                      std::uint8_t* value)
{
    if (block > 63 || offset > 15 || bit > 7)
    {
        logError() << "readFpgaDeviceBit"
                   << ": out of boundary";
        return -1;
    }
    int result = -1;
    for (const auto& node : fpgaDeviceNodes())
    {
        if (node.id != fpgaDevice)
        {
            continue;
        }
        const FpgaImage& image = fpgaImages().at(node.id);
        if (image.valid)
        {
            *value = (image.regs[block * 16 + offset] >> bit) & 1U;
            result = 0;
        }
    }
    return result;
}

} // namespace hwtopod
