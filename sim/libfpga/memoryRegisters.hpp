#pragma once

// The register library's stand-in in memory, for tests that run the daemon's
// read-out in their own process: register spaces are byte strings, and
// nothing is shared with another platform object.

#include "fpga/registerAccess.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>
#include <string>

namespace hwtopod
{

class MemoryRegisters : public RegisterAccess
{
  public:
    // Register spaces by FPGA device id, as readRegisterSpace numbers them.
    // A space that is not here fails as missing; bytes past the end of a
    // short one read as zero.
    std::map<std::uint32_t, std::string> spaces;
    // How many reads of a space fail before they succeed, by device id.
    std::map<std::uint32_t, unsigned> failing;

    int readLocal(unsigned block, unsigned offset,
                  std::span<std::uint8_t> buffer) override
    {
        return read(0, block, offset, buffer);
    }

    int readRemote(unsigned remote, unsigned block, unsigned offset,
                   std::span<std::uint8_t> buffer) override
    {
        return read(remote + 1, block, offset, buffer);
    }

    int readRemoteAdi(unsigned remote, unsigned adiBlock, unsigned adiOffset,
                      unsigned block, unsigned offset,
                      std::span<std::uint8_t> buffer) override
    {
        return read((remote + 1) << 16 | adiBlock << 8 | adiOffset, block,
                    offset, buffer);
    }

  private:
    // The results of the library: 0, or a negated errno value.
    int read(std::uint32_t id, unsigned block, unsigned offset,
             std::span<std::uint8_t> buffer)
    {
        constexpr std::size_t spaceSize = 1024;
        const std::size_t start = std::size_t{block} * 16 + offset;
        if (block >= 64 || offset >= 16 || buffer.empty() ||
            buffer.size() > spaceSize - start)
        {
            return -EINVAL;
        }
        const auto space = spaces.find(id);
        if (space == spaces.end())
        {
            return -ENOENT;
        }
        if (failing[id] > 0)
        {
            --failing[id];
            return -EIO;
        }
        const std::string& bytes = space->second;
        std::fill(buffer.begin(), buffer.end(), std::uint8_t{0});
        if (start < bytes.size())
        {
            std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(start),
                        std::min(buffer.size(), bytes.size() - start),
                        buffer.begin());
        }
        return 0;
    }
};

} // namespace hwtopod
