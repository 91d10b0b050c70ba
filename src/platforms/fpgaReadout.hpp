#pragma once

#include "common/logging.hpp"
#include "common/records.hpp"
#include "common/types.hpp"

#include <array>
#include <cstdint>
#include <exception>
#include <map>
#include <string>
#include <vector>

namespace Platform
{

// What the hardware thread learns from the FPGA: the device table, the riser
// and PCIe bit sets and topology, the SKU selectors and the risers that VPD
// must confirm. The hardware thread fills one such value and hands it over
// once (Base::markHardwareDiscovered); VPD discovery and the service thread
// read only the value handed over, which nobody changes afterwards.
//
// The riser and SKU fields belong to the volume-server family; they are part
// of the one value so that the handover is a single step.
struct FpgaReadout
{
    std::map<std::uint32_t, hwtopod::DeviceState> fpgaDevices;
    int skuRearConfig = 0;
    int skuFrontConfig = 0;
    hwtopod::bitset64 fpgaRiserSlots;
    hwtopod::bitset64 cageMismatch;
    hwtopod::bitset64 cableMismatch;
    hwtopod::bitset64 oldRisers;
    hwtopod::bitset64 riserPresence;
    hwtopod::bitset64 pcieCardPresence;
    hwtopod::bitset64 pciePairing;
    std::array<hwtopod::RiserTopologyEntry, 24> riserTopology{};
    std::vector<hwtopod::PcieSlotEntry> pcieSlotMap;
    std::map<std::string, std::string> skuNames{{"Front", "NONE"},
                                                {"Rear", "NONE"}};
    // Risers the FPGA detected, by number, until VPD confirms them.
    std::map<std::uint32_t, std::string> fpgaMatchQueue;
    // The regs of the images of FPGA devices 0 and 1, set by fpgaDump.
    std::uint8_t* fpgaBlock0 = nullptr;
    std::uint8_t* fpgaBlock1 = nullptr;

    // The state of the device with this key, logged; false, with an error
    // line, for a key the table does not hold.
    bool getFpgaDeviceState(std::uint32_t key) const
    {
        try
        {
            const hwtopod::DeviceState& device = fpgaDevices.at(key);
            hwtopod::logInfo()
                << device.name << (device.state ? " is set" : " is unset");
            return device.state;
        }
        catch (const std::exception& e)
        {
            hwtopod::logError()
                << "Exception in getFpgaDeviceState: " << e.what();
        }
        return false;
    }
};

} // namespace Platform
