#pragma once

// Helpers of the riser read-out and its log lines.

#include "common/types.hpp"

#include <cstddef>
#include <string>

namespace hwtopod
{

// Up to 8 bytes, little-endian: byte 0 gives bits 0 to 7.
bitset64 bitsetFromBytes(const char* bytes, std::size_t length);

// 64 characters '0' and '1', bit 63 first.
std::string bitsetString(const bitset64& bits);

// "data:", then rows of perLine bytes, each row on a new line and numbered
// from 1 ("\n1: 0x0A 0xFF "), each byte as "0x", two upper-case hex digits
// and a blank.
std::string hexDump(const char* bytes, std::size_t length, unsigned perLine);

// The connector name of a connector number: PCIE<n>_CEMA or _CEMB for 1 to 8
// (odd, even), PCIE<n> for 9 to 15, N/A otherwise.
std::string slotName(unsigned connector);

} // namespace hwtopod
