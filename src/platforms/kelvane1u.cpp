#include "kelvane1u.hpp"

#include "common/logging.hpp"

#include <array>

namespace Platform
{

namespace
{
// Low 32 bits: slot (0-5), device (6-9), riser (10-15); bit 20 riser, 21 OCP,
// 22 CFF, 28 cage-id check, 29 signal cable check.
constexpr std::array<std::uint64_t, 12> kelvane1uSlotMap = {
    0x00000000, 0x00160441, 0x00160482, 0x00160C43, 0x30161044, 0x30161445,
    0x00260046, 0x00260087, 0x002A00C8, 0x004E0049, 0x0402004A, 0x0402008B,
};
static_assert(kelvane1uSlotMap.size() == 12);

constexpr std::size_t remoteSkuByte = 12 * 16 + 9;
} // namespace

Kelvane1u::Kelvane1u()
{
    codeName = "kelvane1u";
    platformName = "kp100nx";
    chassisHeightU = 1;
    miniVersion = "01W";
    maxCpu = 2;
    maxDimm = 32;
    maxPsu = 2;
    maxPci = 8;
    maxOcp = 2;
    maxFanMod = 8;
    maxFrontBp = 4;
    maxRearBp = 1;
    maxMiddleBp = 0;
    maxFrontM2 = 0;
    maxRearM2 = 1;
    maxInternalM2 = 1;
    backplanesFile = hwtopod::dataFile("bhs_backplanes.json");
    risersFile = hwtopod::dataFile("bhs_risers.json");
    psuConfigFiles = hwtopod::dataFile("bhs_2p_2psus.json");
    daisyCardVpdPath = "/com/halvex/vpdd/phy_card_vpd";
    daisyCardFruName = "Mgt_Switch_Card";
}

Kelvane1u::~Kelvane1u()
{
    stopThreads();
}

void Kelvane1u::initPcieSlotMap()
{
    hardware.readout.pcieSlotMap.clear();
    for (auto word : kelvane1uSlotMap)
    {
        hardware.readout.pcieSlotMap.push_back(hwtopod::PcieSlotEntry{word});
    }
}

void Kelvane1u::serviceSetup()
{
    logInfo() << "Kelvane1u::serviceSetup";
    vpdReadyPath = "/com/halvex/vpdd/DIMM_32";
    bpProbeStatic = false;
    loadTrd();
    matchVpdd();
}

void Kelvane1u::getSkuConfig()
{
    // An image that was never read holds zeros.
    const bool rearM2 =
        hardware.readout.fpgaBlock1 != nullptr &&
        (hardware.readout.fpgaBlock1[remoteSkuByte] & 0x01) != 0;
    hardware.readout.skuRearConfig = rearM2 ? 1 : 0;
    hardware.readout.skuNames["Rear"] = rearM2 ? "SkuRearM2" : "SkuRearDefault";

    const bool frontRiser =
        (hardware.readout.riserPresence.to_ullong() & 0x18) != 0;
    hardware.readout.skuFrontConfig = frontRiser ? 2 : 3;
    hardware.readout.skuNames["Front"] =
        frontRiser ? "SkuFront2Slot" : "SkuNonFrontRiser";

    logInfo() << "[kelvane1u] getSkuConfig skuRearConfig: "
              << hardware.readout.skuRearConfig;
    logInfo() << "[kelvane1u] getSkuConfig skuFrontConfig: "
              << hardware.readout.skuFrontConfig;

    // The probes select rules by these names; the machine runs them with
    // none selected.
    hardware.readout.skuNames["Rear"] = "NONE";
    hardware.readout.skuNames["Front"] = "NONE";
}

} // namespace Platform
