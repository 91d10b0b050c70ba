#pragma once

// Register access to the machine's FPGAs: the three calls of the platform's
// libfpga.so.0 that the daemon uses, declared here as the daemon's contract
// with that library. The development stand-in under sim/libfpga implements
// the same header, so the daemon compiles against it whichever library it
// links.

#include <span>

namespace halvex_fpga
{

// What a call does with the registers. Only read is used.
enum class Operation : int
{
    read = 0,
};

// Each call returns 0 on success and any other value on failure. On success
// buffer holds length bytes starting at block, offset; buffer.size() equals
// length. A register space is 64 blocks of 16 bytes.

// The local FPGA.
int rawNormalAccess(Operation op, unsigned block, unsigned offset,
                    unsigned length, std::span<char> buffer);

// Remote FPGA number remote, counted from 0.
int rawRemoteNormalAccess(unsigned remote, Operation op, unsigned block,
                          unsigned offset, unsigned length,
                          std::span<char> buffer);

// The ADI space reached through adiBlock, adiOffset of remote FPGA remote.
int rawRemoteAdiAccess(unsigned remote, Operation op, unsigned adiBlock,
                       unsigned adiOffset, unsigned block, unsigned offset,
                       unsigned length, std::span<char> buffer);

} // namespace halvex_fpga
