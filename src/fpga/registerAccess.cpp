#include "registerAccess.hpp"

#include <libfpga.hpp>

namespace hwtopod
{

namespace
{
std::span<char> asChars(std::span<std::uint8_t> bytes)
{
    return {reinterpret_cast<char*>(bytes.data()), bytes.size()};
}

constexpr auto readOp = halvex_fpga::Operation::read;
} // namespace

int readRegisterSpace(std::uint32_t id, std::span<std::uint8_t> regs)
{
    const auto length = static_cast<unsigned>(regs.size());
    if (id == 0)
    {
        return halvex_fpga::rawNormalAccess(readOp, 0, 0, length,
                                            asChars(regs));
    }
    if (id <= 3)
    {
        return halvex_fpga::rawRemoteNormalAccess(id - 1, readOp, 0, 0, length,
                                                  asChars(regs));
    }
    const unsigned remotePlusOne = (id >> 16) & 0xFF;
    if (remotePlusOne == 0)
    {
        return -1;
    }
    return halvex_fpga::rawRemoteAdiAccess(
        remotePlusOne - 1, readOp, (id >> 8) & 0xFF, id & 0xFF, 0, 0, length,
        asChars(regs));
}

int readRemoteRegisters(unsigned remote, unsigned block, unsigned offset,
                        std::span<std::uint8_t> buffer)
{
    return halvex_fpga::rawRemoteNormalAccess(
        remote, readOp, block, offset, static_cast<unsigned>(buffer.size()),
        asChars(buffer));
}

} // namespace hwtopod
