#pragma once

// Reads through the FPGA register library.

#include <cstdint>
#include <span>

namespace hwtopod
{

// Reads the whole register space of an FPGA device id into regs (1024
// bytes): id 0 is the local FPGA, 1 to 3 the remote FPGAs 0 to 2, a larger id
// an ADI space (bits 16-23 the remote number plus 1, bits 8-15 and 0-7 the
// block and offset it is reached through). Returns the library's result, or
// -1 for an id that names no readable space.
int readRegisterSpace(std::uint32_t id, std::span<std::uint8_t> regs);

// Reads buffer.size() bytes of a remote FPGA at block, offset.
int readRemoteRegisters(unsigned remote, unsigned block, unsigned offset,
                        std::span<std::uint8_t> buffer);

} // namespace hwtopod
