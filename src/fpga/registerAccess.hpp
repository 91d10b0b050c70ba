#pragma once

// Reads of the FPGAs' registers, behind the three calls of the FPGA register
// library: the daemon goes to the library, tests put registers in memory here.

#include <cstdint>
#include <memory>
#include <span>

namespace hwtopod
{

// Each call reads buffer.size() bytes starting at block, offset of one
// register space (64 blocks of 16 bytes) and returns 0 on success, any other
// value on failure.
class RegisterAccess
{
  public:
    virtual ~RegisterAccess() = default;

    // The local FPGA.
    virtual int readLocal(unsigned block, unsigned offset,
                          std::span<std::uint8_t> buffer) = 0;
    // Remote FPGA number remote, counted from 0.
    virtual int readRemote(unsigned remote, unsigned block, unsigned offset,
                           std::span<std::uint8_t> buffer) = 0;
    // The ADI space reached through adiBlock, adiOffset of remote FPGA
    // remote.
    virtual int readRemoteAdi(unsigned remote, unsigned adiBlock,
                              unsigned adiOffset, unsigned block,
                              unsigned offset,
                              std::span<std::uint8_t> buffer) = 0;
};

// The FPGA register library.
std::unique_ptr<RegisterAccess> libraryRegisters();

// Reads the whole register space of an FPGA device id into regs (1024
// bytes): id 0 is the local FPGA, 1 to 3 the remote FPGAs 0 to 2, a larger id
// an ADI space (bits 16-23 the remote number plus 1, bits 8-15 and 0-7 the
// block and offset it is reached through). Returns the library's result, or
// -1 for an id that names no readable space.
int readRegisterSpace(RegisterAccess& registers, std::uint32_t id,
                      std::span<std::uint8_t> regs);

} // namespace hwtopod
