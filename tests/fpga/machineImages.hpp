#pragma once

// Register images of a Kelvane1u: risers 1, 3, 4, 5 fitted, cards in slots 1
// and 4, OCP 0, riser 3 old, riser 4 with two cables of which B is on
// PCIE6_CEMB instead of PCIE4_CEMB.

#include "sandbox.hpp"

#include <cstdint>
#include <map>
#include <string>

namespace hwtopod::test
{

struct MachineImages
{
    // The register spaces by FPGA device id: local, remote 0, its ADI space.
    static constexpr std::uint32_t adiId = 0x00011408;
    std::map<std::uint32_t, std::string> spaces = {
        {0, std::string(1024, '\0')},
        {1, std::string(1024, '\0')},
        {adiId, std::string(1024, '\0')}};

    void set(unsigned block, unsigned offset, std::uint8_t value)
    {
        spaces[1][block * 16 + offset] = static_cast<char>(value);
    }
    // One entry of the ADI riser topology map.
    void topology(unsigned position, std::uint8_t aExp, std::uint8_t bExp,
                  std::uint8_t aAct, std::uint8_t bAct, std::uint8_t status)
    {
        spaces[adiId].replace(
            (position - 1) * 4, 4,
            {static_cast<char>(aExp), static_cast<char>(bExp),
             static_cast<char>((bAct << 4) | aAct), static_cast<char>(status)});
    }
    // The files of the library stand-in.
    void write(const TempDir& dir) const
    {
        writeFile(dir / "local.img", spaces.at(0));
        writeFile(dir / "remote0.img", spaces.at(1));
        writeFile(dir / "remote0-adi-20-8.img", spaces.at(adiId));
    }
};

inline MachineImages kelvaneImages()
{
    MachineImages m;
    m.spaces[0][22 * 16 + 10] = 0x02;
    m.set(20, 1, 0x1F);  // riser presence, positions 1 to 5
    m.set(20, 4, 0x08);  // pairing: position 4
    m.set(20, 8, 0xA5);  // not part of the pairing bits
    m.set(25, 12, 0x09); // cards in slots 1 and 4
    // Status bytes and presence of the road without the ADI space.
    m.set(24, 0, 0x13);
    m.set(24, 3, 0x46);
    m.set(24, 4, 0x5B);
    m.set(25, 1, 0xFF);
    m.set(25, 8, 0x1D);
    m.set(12, 5, 0x20);  // PONG
    m.set(12, 6, 0x41);  // OCP_0, INTRUSSION_CONN
    m.set(12, 9, 0x01);  // rear M.2
    m.set(12, 11, 0x24); // fan types
    m.set(12, 12, 0x0B);
    m.set(28, 8, 0x08); // CPU_2 absent (active low)

    m.topology(1, 1, 0, 1, 0, 0x13);
    m.topology(2, 2, 0, 2, 0, 0x13);
    m.topology(3, 0, 0, 0, 0, 0x30); // old; mismatches the map ignores
    m.topology(4, 3, 4, 3, 6, 0x46); // RsrID 4, CageID 1, CableM 0
    m.topology(5, 9, 0, 9, 0, 0x5B); // RsrID 5, CageID 2
    return m;
}

} // namespace hwtopod::test
