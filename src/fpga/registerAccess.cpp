#include "registerAccess.hpp"

#include "libfpga.hpp"

namespace hwtopod
{

namespace
{
std::span<char> asChars(std::span<std::uint8_t> bytes)
{
    return {reinterpret_cast<char*>(bytes.data()), bytes.size()};
}

unsigned lengthOf(std::span<std::uint8_t> bytes)
{
    return static_cast<unsigned>(bytes.size());
}

constexpr auto readOp = halvex_fpga::Operation::read;

class LibraryRegisters : public RegisterAccess
{
  public:
    int readLocal(unsigned block, unsigned offset,
                  std::span<std::uint8_t> buffer) override
    {
        return halvex_fpga::rawNormalAccess(readOp, block, offset,
                                            lengthOf(buffer), asChars(buffer));
    }

    int readRemote(unsigned remote, unsigned block, unsigned offset,
                   std::span<std::uint8_t> buffer) override
    {
        return halvex_fpga::rawRemoteNormalAccess(
            remote, readOp, block, offset, lengthOf(buffer), asChars(buffer));
    }

    int readRemoteAdi(unsigned remote, unsigned adiBlock, unsigned adiOffset,
                      unsigned block, unsigned offset,
                      std::span<std::uint8_t> buffer) override
    {
        return halvex_fpga::rawRemoteAdiAccess(
            remote, readOp, adiBlock, adiOffset, block, offset,
            lengthOf(buffer), asChars(buffer));
    }
};
} // namespace

std::unique_ptr<RegisterAccess> libraryRegisters()
{
    return std::make_unique<LibraryRegisters>();
}

int readRegisterSpace(RegisterAccess& registers, std::uint32_t id,
                      std::span<std::uint8_t> regs)
{
    if (id == 0)
    {
        return registers.readLocal(0, 0, regs);
    }
    if (id <= 3)
    {
        return registers.readRemote(id - 1, 0, 0, regs);
    }
    const unsigned remotePlusOne = (id >> 16) & 0xFF;
    if (remotePlusOne == 0)
    {
        return -1;
    }
    return registers.readRemoteAdi(remotePlusOne - 1, (id >> 8) & 0xFF,
                                   id & 0xFF, 0, 0, regs);
}

} // namespace hwtopod
