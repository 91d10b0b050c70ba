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
} // namespace

void Highvol::checkPresence()
{
    logInfo() << "Riser presence:"
              << hwtopod::bitsetString(hardware.readout.riserPresence);
    logInfo() << "PCIe card presence:"
              << hwtopod::bitsetString(hardware.readout.pcieCardPresence);

    // Positions outside the topology table read as an all-zero entry.
    RiserTopologyEntry outside{};
    auto entryAt = [&](unsigned position) -> RiserTopologyEntry& {
        if (position >= 1 && position <= hardware.readout.riserTopology.size())
        {
            return hardware.readout.riserTopology[position - 1];
        }
        outside = RiserTopologyEntry{};
        return outside;
    };

    // Risers named by earlier map entries; a riser with two slots gets one
    // install event.
    std::vector<unsigned> risersSeen;

    for (const auto& mapEntry : hardware.readout.pcieSlotMap)
    {
        const unsigned slot = mapEntry.slot();
        const unsigned device = mapEntry.device();
        bool adapterPresent = false;

        if (mapEntry.isRiser())
        {
            const unsigned riser = mapEntry.riser();
            RiserTopologyEntry& slotEntry = entryAt(slot);
            logRiserStatus(riser, slot,
                           bitAt(hardware.readout.riserPresence, slot),
                           bitAt(hardware.readout.oldRisers, riser), slotEntry);

            if (!mapEntry.checksCage())
            {
                logInfo() << "Don't need to check cage id mismatch in riser "
                          << riser << " for PCIe slot " << slot;
                slotEntry.setCageMatch();
            }
            if (!mapEntry.checksCable())
            {
                logInfo()
                    << "Don't need to check signal cable mismatch in riser "
                    << riser << " for PCIe slot " << slot;
                slotEntry.setCableMatch();
            }

            const bool installed = bitAt(hardware.readout.riserPresence, slot);
            if (installed)
            {
                setBitAt(hardware.readout.fpgaRiserSlots, riser);
                hardware.readout.fpgaMatchQueue.try_emplace(
                    riser, "Slot_" + std::to_string(riser) + "_Riser");
                if (mapEntry.checksCage() && slotEntry.cageMatch() == 0)
                {
                    logInfo() << "Riser " << riser << " for PCIe slot " << slot
                              << " configuration is mismatched, Cage ID error";
                    setBitAt(hardware.readout.cageMismatch, slot);
                }
                if (mapEntry.checksCable() && slotEntry.cableMatch() == 0)
                {
                    logInfo()
                        << "Riser " << riser << " for PCIe slot " << slot
                        << " configuration is mismatched, connectors error";
                    setBitAt(hardware.readout.cableMismatch, slot);
                }
                if (std::find(risersSeen.begin(), risersSeen.end(), riser) ==
                    risersSeen.end())
                {
                    hwtopod::sendPresentEvent(DeviceType::SlotRiser, true,
                                              riser, "", true);
                }
            }

            if (bitAt(hardware.readout.pcieCardPresence, slot))
            {
                logInfo() << "Pcie card in slot " << slot << " is installed";
                hwtopod::sendPresentEvent(DeviceType::PcieCard, true, slot, "",
                                          true);
                adapterPresent = true;
            }
            risersSeen.push_back(riser);

            // The cable check looks at the riser's own position, whose
            // CableM is already forced where no check is asked for.
            const RiserTopologyEntry& riserEntry = entryAt(riser);
            if (!bitAt(hardware.readout.oldRisers, riser) &&
                bitAt(hardware.readout.riserPresence, riser) &&
                riserEntry.cableMatch() == 0)
            {
                const std::string name = "PCIe Slot " + std::to_string(riser);
                if (!bitAt(hardware.readout.pciePairing, riser))
                {
                    judgeCable(name, riserEntry.aExpected(),
                               riserEntry.aActual(), "");
                }
                else
                {
                    judgeCable(name, riserEntry.aExpected(),
                               riserEntry.aActual(), "CEMA");
                    judgeCable(name, riserEntry.bExpected(),
                               riserEntry.bActual(), "CEMB");
                }
            }

            hardware.readout.fpgaDevices[deviceKey::riserKeyBase + riser] =
                DeviceState{"RISER_" + std::to_string(riser) + "_INSTALLED",
                            installed};
        }
        else if (mapEntry.isCff())
        {
            // The FPGA has no presence bit for a CFF device.
            logInfo() << "Check CFF device " << device;
        }
        else if (mapEntry.isOcp())
        {
            logInfo() << "Check OCP device " << device;
            // OCP devices 1 and 3 share the OCP_0 bit; the front OCP bits
            // tell them apart. Each question logs its answer.
            switch (device)
            {
                case 1:
                    adapterPresent =
                        getFpgaDeviceState(deviceKey::ocp0) &&
                        !getFpgaDeviceState(deviceKey::x8FrontOcp) &&
                        !getFpgaDeviceState(deviceKey::x16FrontOcp);
                    break;
                case 2:
                    adapterPresent = getFpgaDeviceState(deviceKey::ocp1);
                    break;
                case 3:
                    adapterPresent =
                        getFpgaDeviceState(deviceKey::ocp0) &&
                        (getFpgaDeviceState(deviceKey::x8FrontOcp) ||
                         getFpgaDeviceState(deviceKey::x16FrontOcp));
                    break;
                default:
                    break;
            }
            if (adapterPresent)
            {
                hwtopod::sendPresentEvent(DeviceType::Ocp, true, device, "",
                                          true);
            }
        }

        if (slot != 0)
        {
            hardware.readout.fpgaDevices[deviceKey::slotKeyBase + slot] =
                DeviceState{"SLOT_" + std::to_string(slot) + "_ADAPTER_PRSNT",
                            adapterPresent};
        }
    }
}

} // namespace Platform
