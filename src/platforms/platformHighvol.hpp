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

    void checkRiserConnection(const nlohmann::json& riser,
                              const std::string& riserName);
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
    hwtopod::rules::Selectors selectors();
    // Sets BP_<id>_INSTALLED on the backplane status object.
    void updateBackplaneStatus(std::uint8_t id);

    void powerFaultMonitor();
};

} // namespace Platform
