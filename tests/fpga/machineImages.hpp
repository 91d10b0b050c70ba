#pragma once

// Register images of a Kelvane1u as the register library stand-in serves
// them: risers 1, 3, 4 and 5 fitted, cards in slots 1 and 4, OCP 0 fitted,
// riser 3 an old riser, riser 4 with two cables of which B is on the wrong
// connector.

#include "sandbox.hpp"

#include <array>
#include <cstdint>
#include <string>

namespace hwtopod::test
{

struct MachineImages
{
    std::string local = std::string(1024, '\0');
    std::string remote = std::string(1024, '\0');
    std::string adi = std::string(1024, '\0');

    void set(std::string& image, unsigned block, unsigned offset,
             std::uint8_t value)
    {
        image[block * 16 + offset] = static_cast<char>(value);
    }
    // One 4-byte entry of the ADI riser topology map: A_Exp, B_Exp,
    // B_Act << 4 | A_Act, status.
    void topology(unsigned position, std::uint8_t aExp, std::uint8_t bExp,
                  std::uint8_t aAct, std::uint8_t bAct, std::uint8_t status)
    {
        const auto at = (position - 1) * 4;
        adi[at] = static_cast<char>(aExp);
        adi[at + 1] = static_cast<char>(bExp);
        adi[at + 2] = static_cast<char>((bAct << 4) | aAct);
        adi[at + 3] = static_cast<char>(status);
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
    m.set(m.local, 22, 10, 0x02);
    // Riser presence for positions 1 to 5; pairing for position 4.
    m.set(m.remote, 20, 1, 0x1F);
    m.set(m.remote, 20, 4, 0x08);
    m.set(m.remote, 20, 8, 0xA5); // where the ADI space is reached
    // Cards in slots 1 and 4.
    m.set(m.remote, 25, 12, 0x09);
    // Status bytes and riser presence of the block 24/25 road; they only
    // count when the ADI space cannot be read.
    m.set(m.remote, 24, 0, 0x13);
    m.set(m.remote, 24, 3, 0x46);
    m.set(m.remote, 24, 4, 0x5B);
    m.set(m.remote, 24, 17, 0xFF);
    m.set(m.remote, 25, 8, 0x1D);
    // OCP 0 and the intrusion connector; PONG.
    m.set(m.remote, 12, 6, 0x41);
    m.set(m.remote, 12, 5, 0x20);
    // Rear M.2 configuration, fan types.
    m.set(m.remote, 12, 9, 0x01);
    m.set(m.remote, 12, 11, 0x24);
    m.set(m.remote, 12, 12, 0x0B);
    // CPU_1 present (active low), CPU_2 absent; front panel present.
    m.set(m.remote, 28, 7, 0x00);
    m.set(m.remote, 28, 8, 0x08);
    m.set(m.remote, 18, 14, 0x00);

    // Riser 1 (slots 1 and 2): new, cables right.
    m.topology(1, 1, 0, 1, 0, 0x13);
    m.topology(2, 2, 0, 2, 0, 0x13);
    // Riser 3: old riser; the FPGA reports both mismatches, which the slot
    // map does not check.
    m.topology(3, 0, 0, 0, 0, 0x30);
    // Riser 4: paired, A on PCIE3_CEMA as expected, B expected on
    // PCIE4_CEMB but on PCIE6_CEMB. RsrID 4, CageID 1, cage matches.
    m.topology(4, 3, 4, 3, 6, 0x46);
    // Riser 5: one cable, on PCIE9 as expected. RsrID 5, CageID 2.
    m.topology(5, 9, 0, 9, 0, 0x5B);
    return m;
}

} // namespace hwtopod::test
