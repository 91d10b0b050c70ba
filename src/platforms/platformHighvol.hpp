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

// The volume-server family: the riser and PCIe read-out of the FPGA, the
// presence analysis, SKU selection and the dynamic probes.
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
    void fpgaReadoutArrived() override;
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

    using RiserCheck = DiscoveryState::RiserCheck;
    void checkRiserConnection(const nlohmann::json& riser,
                              const std::string& riserName);
    // The part of a riser's check that needs no FPGA data: its keys read,
    // the I2C links of its PCIe slots and their bits in vpdRiserSlots;
    // judge, when given, is called for each slot right after its link. None
    // when the record lacks what the check needs; a key of the wrong type
    // throws.
    std::optional<RiserCheck> linkRiser(
        const nlohmann::json& riser, const std::string& riserName,
        const std::function<void(const RiserCheck&, std::uint64_t)>& judge);
    // What the FPGA's status says of one slot's location and cable.
    void judgeSlot(const RiserCheck& check, std::uint64_t slot);
    void confirmRiserConnector(const RiserCheck& check);
    void reportUnconfirmedRisers();
    void sendBackplanePresence(const nlohmann::json& record);
    std::optional<std::uint64_t> claimRiserSlot(const nlohmann::json& record,
                                                const std::string& name);
    // The machine's selectors of topology entries, but for the open loop.
    hwtopod::rules::Selectors selectors();
    // Sets BP_<id>_INSTALLED on the backplane status object.
    void updateBackplaneStatus(std::uint8_t id);

    void powerFaultMonitor();
};

} // namespace Platform
