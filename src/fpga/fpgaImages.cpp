#include "fpgaImages.hpp"

#include "common/logging.hpp"

namespace hwtopod
{

const std::vector<FpgaDeviceNode>& fpgaDeviceNodes()
{
    static const std::vector<FpgaDeviceNode> nodes = {
        {0x00000000, "/dev/fpga-cdev"},
        {0x00000001, "/dev/fpga-r0"},
        {0x00011408, "/dev/fpga-r0-adi"},
    };
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
