#include "kelvane1u.hpp"

#include "common/logging.hpp"
#include "fpga/deviceTable.hpp"

#include <array>
#include <tuple>
#include <utility>

namespace Platform
{

namespace
{
// Low 32 bits: slot (0-5), device (6-9), riser (10-15); bit 20 riser, 21 OCP,
// 22 CFF, 28 cage-id check, 29 signal cable check.
// clang-format off
constexpr auto kelvane1uSlotMap = std::to_array<hwtopod::PcieSlotEntry>({
    {0x00000000}, {0x00160441}, {0x00160482}, {0x00160C43},
    {0x30161044}, {0x30161445}, {0x00260046}, {0x00260087},
    {0x002A00C8}, {0x004E0049}, {0x0402004A}, {0x0402008B},
});
// clang-format on

// The presence analysis keeps a state for each slot and riser of the map in
// fpgaDevices: one slot an entry, and none of those keys taken by another
// device.
constexpr bool slotMapKeysFree()
{
    using namespace hwtopod::deviceKey;
    for (std::size_t i = 0; i < kelvane1uSlotMap.size(); ++i)
    {
        const auto& entry = kelvane1uSlotMap[i];
        for (std::size_t j = 0; j < i; ++j)
        {
            if (entry.slot() != 0 && kelvane1uSlotMap[j].slot() == entry.slot())
            {
                return false;
            }
        }
        const std::uint32_t slotKey = slotKeyBase + entry.slot();
        const std::uint32_t riserKey = riserKeyBase + entry.riser();
        if ((entry.slot() != 0 && hwtopod::isDeviceTableKey(slotKey)) ||
            (entry.isRiser() && hwtopod::isDeviceTableKey(riserKey)))
        {
            return false;
        }
        for (const auto& other : kelvane1uSlotMap)
        {
            if (other.isRiser() && entry.slot() != 0 &&
                riserKeyBase + other.riser() == slotKey)
            {
                return false;
            }
        }
    }
    return true;
}
static_assert(slotMapKeysFree());

// The presence analysis reads a riser entry's status at its slot's and at
// its riser's position of the topology table; outside it reads nothing.
constexpr bool riserPositionsInTopology()
{
    constexpr std::size_t positions =
        std::tuple_size_v<decltype(FpgaReadout::riserTopology)>;
    for (const auto& entry : kelvane1uSlotMap)
    {
        if (entry.isRiser() &&
            (entry.slot() > positions || entry.riser() > positions))
        {
            return false;
        }
    }
    return true;
}
static_assert(riserPositionsInTopology());

constexpr std::size_t remoteSkuByte = 12 * 16 + 9;
} // namespace

Kelvane1u::Kelvane1u(Seams seams, const MachineDefinition& machine) :
    Highvol(std::move(seams), machine)
{}

Kelvane1u::~Kelvane1u()
{
    stopThreads();
}

void Kelvane1u::initPcieSlotMap()
{
    hardware.readout.pcieSlotMap.assign(kelvane1uSlotMap.begin(),
                                        kelvane1uSlotMap.end());
}

void Kelvane1u::serviceSetup()
{
    logInfo() << "Kelvane1u::serviceSetup";
    vpdReadyPath = "/com/halvex/vpdd/DIMM_32";
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
