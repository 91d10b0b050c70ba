#pragma once

// Register images of a Kelvane1u for the library stand-in: risers 1, 3, 4, 5
// fitted, cards in slots 1 and 4, OCP 0, riser 3 old, riser 4 with two cables
// of which B is on PCIE6_CEMB instead of PCIE4_CEMB.

#include "sandbox.hpp"

#include <cstdint>
#include <string>

namespace hwtopod::test
{

struct MachineImages
{
    std::string local = std::string(1024, '\0');
    std::string remote = std::string(1024, '\0');
    std::string adi = std::string(1024, '\0');

    void set(unsigned block, unsigned offset, std::uint8_t value)
    {
        remote[block * 16 + offset] = static_cast<char>(value);
    }
    // One entry of the ADI riser topology map.
    void topology(unsigned position, std::uint8_t aExp, std::uint8_t bExp,
                  std::uint8_t aAct, std::uint8_t bAct, std::uint8_t status)
    {
        adi.replace((position - 1) * 4, 4,
                    {static_cast<char>(aExp), static_cast<char>(bExp),
                     static_cast<char>((bAct << 4) | aAct),
                     static_cast<char>(status)});
    }
    void write(const TempDir& dir, bool withAdi = true) const
    {
        writeFile(dir / "local.img", local);
        writeFile(dir / "remote0.img", remote);
        if (withAdi)
        {
            writeFile(dir / "remote0-adi-20-8.img", adi);
        }
    }
};

inline MachineImages kelvaneImages()
{
    MachineImages m;
    m.local[22 * 16 + 10] = 0x02;
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
