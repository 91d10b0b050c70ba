#include "kelvane1u.hpp"

#include "common/logging.hpp"

#include <array>
#include <utility>

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

Kelvane1u::Kelvane1u(Seams seams) : Highvol(std::move(seams))
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

void Kelvane1u::initPcieSlotMap()
{
    pcieSlotMap.clear();
    for (auto word : kelvane1uSlotMap)
    {
        pcieSlotMap.push_back(hwtopod::PcieSlotEntry{word});
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
    const bool rearM2 = fpgaBlock1 != nullptr &&
                        (fpgaBlock1[remoteSkuByte] & 0x01) != 0;
    skuRearConfig = rearM2 ? 1 : 0;
    skuNames["Rear"] = rearM2 ? "SkuRearM2" : "SkuRearDefault";

    const bool frontRiser = (riserPresence.to_ullong() & 0x18) != 0;
    skuFrontConfig = frontRiser ? 2 : 3;
    skuNames["Front"] = frontRiser ? "SkuFront2Slot" : "SkuNonFrontRiser";

    logInfo() << "[kelvane1u] getSkuConfig skuRearConfig: " << skuRearConfig;
    logInfo() << "[kelvane1u] getSkuConfig skuFrontConfig: " << skuFrontConfig;

    // The probes select rules by these names; the machine runs them with
    // none selected.
    skuNames["Rear"] = "NONE";
    skuNames["Front"] = "NONE";
}

} // namespace Platform
