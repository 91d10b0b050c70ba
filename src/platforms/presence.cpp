// Presence analysis: turns the riser read-out into installed risers and
// adapters, the risers awaiting VPD confirmation, the cage and cable
// mismatches the FPGA reports, and the install and riser cable events.
#include "fpga/deviceTable.hpp"
#include "fpga/readout.hpp"
#include "platformHighvol.hpp"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace Platform
{

namespace
{
namespace deviceKey = hwtopod::deviceKey;
using hwtopod::DeviceType;
using hwtopod::RiserTopologyEntry;

std::string hex(unsigned value)
{
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "0x%02X", value & 0xFFU);
    return text.data();
}

// Bit of position (1-based); positions outside the set read as clear.
bool bitAt(const bitset64& bits, unsigned position)
{
    return position >= 1 && position <= bits.size() && bits.test(position - 1);
}

void setBitAt(bitset64& bits, unsigned position)
{
    if (position >= 1 && position <= bits.size())
    {
        bits.set(position - 1);
    }
}

void logRiserStatus(unsigned riser, unsigned slot, bool present, bool old,
                    const RiserTopologyEntry& entry)
{
    logInfo() << "Riser " << riser << ":Prsnt:" << (present ? 1 : 0) << ","
              << (old ? "Old" : "New") << ". PCIe:" << slot << ", stat:"
              << hex(entry.status()) << "(RsrID:" << hex(entry.riserId())
              << ",CageID:" << hex(entry.cageId()) << ",CageM:"
              << hex(entry.cageMatch()) << ",CableM:" << hex(entry.cableMatch())
              << "),A_Exp:" << hex(entry.aExpected()) << ",A_Act:"
              << hex(entry.aActual()) << ",B_Exp:" << hex(entry.bExpected())
              << ",B_Act:" << hex(entry.bActual());
}

// Events for one cable whose actual connector differs from the expected one.
void judgeCable(const std::string& device, unsigned expected, unsigned actual,
                const std::string& cable)
{
    using hwtopod::slotName;
    if (actual == 0)
    {
        hwtopod::sendRiserCableEvent(2, device, slotName(expected), "", cable);
    }
    else if (actual != expected)
    {
        hwtopod::sendRiserCableEvent(1, device, slotName(expected),
                                     slotName(actual), cable);
    }
}
// The topology entry at a 1-based position; a position outside the table
// reads as an all-zero entry, which outside then holds.
RiserTopologyEntry& entryAt(FpgaReadout& readout, unsigned position,
                            RiserTopologyEntry& outside)
{
    if (position >= 1 && position <= readout.riserTopology.size())
    {
        return readout.riserTopology[position - 1];
    }
    outside = RiserTopologyEntry{};
    return outside;
}

// The cable events of a new riser, judged at the riser's own position,
// whose CableM is already forced where no check is asked for.
void judgeRiserCables(FpgaReadout& readout, unsigned riser)
{
    RiserTopologyEntry outside{};
    const RiserTopologyEntry& entry = entryAt(readout, riser, outside);
    if (bitAt(readout.oldRisers, riser) ||
        !bitAt(readout.riserPresence, riser) || entry.cableMatch() != 0)
    {
        return;
    }
    const std::string name = "PCIe Slot " + std::to_string(riser);
    if (!bitAt(readout.pciePairing, riser))
    {
        judgeCable(name, entry.aExpected(), entry.aActual(), "");
        return;
    }
    judgeCable(name, entry.aExpected(), entry.aActual(), "CEMA");
    judgeCable(name, entry.bExpected(), entry.bActual(), "CEMB");
}

// An installed riser at a slot: queued for VPD to confirm, its cage and
// cable mismatches noted, and one install event per riser (risersSeen
// holds the risers named by earlier slots).
void noteInstalledRiser(FpgaReadout& readout,
                        const hwtopod::PcieSlotEntry& mapEntry,
                        const RiserTopologyEntry& slotEntry,
                        const std::vector<unsigned>& risersSeen)
{
    const unsigned riser = mapEntry.riser();
    const unsigned slot = mapEntry.slot();
    setBitAt(readout.fpgaRiserSlots, riser);
    readout.fpgaMatchQueue.try_emplace(
        riser, "Slot_" + std::to_string(riser) + "_Riser");
    if (mapEntry.checksCage() && slotEntry.cageMatch() == 0)
    {
        logInfo() << "Riser " << riser << " for PCIe slot " << slot
                  << " configuration is mismatched, Cage ID error";
        setBitAt(readout.cageMismatch, slot);
    }
    if (mapEntry.checksCable() && slotEntry.cableMatch() == 0)
    {
        logInfo() << "Riser " << riser << " for PCIe slot " << slot
                  << " configuration is mismatched, connectors error";
        setBitAt(readout.cableMismatch, slot);
    }
    if (std::find(risersSeen.begin(), risersSeen.end(), riser) ==
        risersSeen.end())
    {
        hwtopod::sendPresentEvent(DeviceType::SlotRiser, true, riser, "", true);
    }
}

// A riser slot of the slot map; true when a PCIe card sits in it.
bool checkRiserSlot(FpgaReadout& readout,
                    const hwtopod::PcieSlotEntry& mapEntry,
                    std::vector<unsigned>& risersSeen)
{
    const unsigned riser = mapEntry.riser();
    const unsigned slot = mapEntry.slot();
    RiserTopologyEntry outside{};
    RiserTopologyEntry& slotEntry = entryAt(readout, slot, outside);
    const bool installed = bitAt(readout.riserPresence, slot);
    logRiserStatus(riser, slot, installed, bitAt(readout.oldRisers, riser),
                   slotEntry);
    if (!mapEntry.checksCage())
    {
        logInfo() << "Don't need to check cage id mismatch in riser " << riser
                  << " for PCIe slot " << slot;
        slotEntry.setCageMatch();
    }
    if (!mapEntry.checksCable())
    {
        logInfo() << "Don't need to check signal cable mismatch in riser "
                  << riser << " for PCIe slot " << slot;
        slotEntry.setCableMatch();
    }
    if (installed)
    {
        noteInstalledRiser(readout, mapEntry, slotEntry, risersSeen);
    }
    const bool cardPresent = bitAt(readout.pcieCardPresence, slot);
    if (cardPresent)
    {
        logInfo() << "Pcie card in slot " << slot << " is installed";
        hwtopod::sendPresentEvent(DeviceType::PcieCard, true, slot, "", true);
    }
    risersSeen.push_back(riser);
    judgeRiserCables(readout, riser);
    readout.fpgaDevices[deviceKey::riserKeyBase + riser] =
        DeviceState{"RISER_" + std::to_string(riser) + "_INSTALLED", installed};
    return cardPresent;
}

// Whether OCP device 1, 2 or 3 is present. Devices 1 and 3 share the OCP_0
// bit; the front OCP bits tell them apart. Each question logs its answer.
bool ocpPresent(const FpgaReadout& readout, unsigned device)
{
    switch (device)
    {
        case 1:
            return readout.getFpgaDeviceState(deviceKey::ocp0) &&
                   !readout.getFpgaDeviceState(deviceKey::x8FrontOcp) &&
                   !readout.getFpgaDeviceState(deviceKey::x16FrontOcp);
        case 2:
            return readout.getFpgaDeviceState(deviceKey::ocp1);
        case 3:
            return readout.getFpgaDeviceState(deviceKey::ocp0) &&
                   (readout.getFpgaDeviceState(deviceKey::x8FrontOcp) ||
                    readout.getFpgaDeviceState(deviceKey::x16FrontOcp));
        default:
            return false;
    }
}
} // namespace

void Highvol::checkPresence()
{
    auto& readout = hardware.readout;
    logInfo() << "Riser presence:"
              << hwtopod::bitsetString(readout.riserPresence);
    logInfo() << "PCIe card presence:"
              << hwtopod::bitsetString(readout.pcieCardPresence);

    std::vector<unsigned> risersSeen;
    for (const auto& mapEntry : readout.pcieSlotMap)
    {
        const unsigned slot = mapEntry.slot();
        const unsigned device = mapEntry.device();
        bool adapterPresent = false;
        if (mapEntry.isRiser())
        {
            adapterPresent = checkRiserSlot(readout, mapEntry, risersSeen);
        }
        else if (mapEntry.isCff())
        {
            // The FPGA has no presence bit for a CFF device.
            logInfo() << "Check CFF device " << device;
        }
        else if (mapEntry.isOcp())
        {
            logInfo() << "Check OCP device " << device;
            adapterPresent = ocpPresent(readout, device);
            if (adapterPresent)
            {
                hwtopod::sendPresentEvent(DeviceType::Ocp, true, device, "",
                                          true);
            }
        }
        if (slot != 0)
        {
            readout.fpgaDevices[deviceKey::slotKeyBase + slot] =
                DeviceState{"SLOT_" + std::to_string(slot) + "_ADAPTER_PRSNT",
                            adapterPresent};
        }
    }
}

} // namespace Platform
