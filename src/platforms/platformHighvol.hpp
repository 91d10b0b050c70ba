#pragma once

#include "platformBase.hpp"

#include <array>
#include <optional>

namespace Platform
{

using hwtopod::bitset64;

// The family's counts; a machine of the family names its own definition.
inline constexpr MachineDefinition highvolDefinition{
    .maxCpu = 2,
    .maxDimm = 32,
    .maxPsu = 2,
    .maxOcp = 2,
    .maxRearM2 = 1,
    .maxInternalM2 = 1,
};

// The volume-server family: riser and PCIe bit sets, the riser topology
// table, SKU state and the FPGA read-out.
class Highvol : public Base
{
  public:
    explicit Highvol(Seams seams,
                     const MachineDefinition& machine = highvolDefinition);
    ~Highvol() override;

    Highvol(const Highvol&) = delete;
    Highvol& operator=(const Highvol&) = delete;
    Highvol(Highvol&&) = delete;
    Highvol& operator=(Highvol&&) = delete;

    void probeCachedVpdd() override;
    void probeCachedObject(const std::string& path);
    void probeBpVpddDynamic(const std::string& path,
                            std::uint64_t posId) override;
    void probeRiserVpddDynamic(const std::string& path,
                               std::uint64_t posId) override;
    void platformInfoInit() override;

    virtual void checkPresence();
    virtual void getSkuConfig();

    // FPGA read-out on the hardware thread.
    void waitForFpga();
    void fpgaDump();
    void hwDeviceDiscovery();
    void readRiserTopology();
    void readRiserStatus(const std::uint8_t* regs);
    void readRiserAdiMap(const std::uint8_t* regs, const std::uint8_t* map);
    void getFpgaFanInfo();
    // One pass of the hardware thread's closing loop.
    void refreshFpgaBlock12();
    void applyPlatformCoolingSettings();

    void checkRiserConnection(const nlohmann::json& riser,
                              std::string riserName);
    void linkRiserCardSlots(const nlohmann::json& riser,
                            const std::string& riserName, bool riserPresent);
    void confirmRiserConnector(const nlohmann::json& riser,
                               const std::string& riserName,
                               unsigned riserNumber);
    void checkSlotStatus(const nlohmann::json& riser,
                         const std::string& riserName, std::uint64_t slot,
                         bool riserPresent);
    void reportUnconfirmedRisers();
    void sendBackplanePresence(const nlohmann::json& record);
    std::optional<std::uint64_t> claimRiserSlot(const nlohmann::json& record,
                                                const std::string& name);
    // The machine's selectors of topology entries, but for the open loop.
    hwtopod::rules::Selectors selectors() const;
    // Sets BP_<id>_INSTALLED on the backplane status object.
    void updateBackplaneStatus(std::uint8_t id);

    void powerFaultMonitor();

    // No lock on the members below. The read-out fields, skuNames and
    // fpgaMatchQueue are written by the hardware thread before
    // hwDiscoveryDone; VPD discovery waits for that flag (for a bounded
    // time, see waitForHardwareDiscovery) in probeCachedVpdd
    // and is from then on their only user (it takes risers off
    // fpgaMatchQueue and fills vpdRiserSlots, riserSlotsProbed and
    // cachedVpdDone).
    int skuRearConfig = 0;
    int skuFrontConfig = 0;
    bitset64 riserSlotsProbed;
    bitset64 vpdRiserSlots;
    bitset64 fpgaRiserSlots;
    bitset64 cageMismatch;
    bitset64 cableMismatch;
    bitset64 oldRisers;
    bitset64 riserPresence;
    bitset64 pcieCardPresence;
    bitset64 pciePairing;
    std::array<hwtopod::RiserTopologyEntry, 24> riserTopology{};
    std::vector<hwtopod::PcieSlotEntry> pcieSlotMap;
    std::map<std::string, std::string> skuNames;
    bool cachedVpdDone = false;
    std::map<std::uint32_t, std::string> fpgaMatchQueue;
    // The regs of the images of FPGA devices 0 and 1, set by fpgaDump.
    std::uint8_t* fpgaBlock0 = nullptr;
    std::uint8_t* fpgaBlock1 = nullptr;
};

} // namespace Platform
