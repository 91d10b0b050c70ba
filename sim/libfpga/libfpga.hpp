#pragma once

// Register access to the machine's FPGAs.
//
// This header belongs to the development and test stand-in built from this
// directory: it serves register images from files instead of reaching the
// hardware (the file layout is described in docs/simulation.md). The three
// calls and their arguments are those of the platform's own libfpga.so.0,
// so the daemon compiles against this header whichever library it links.

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
