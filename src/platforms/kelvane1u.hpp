#pragma once

#include "platformHighvol.hpp"

namespace Platform
{

inline constexpr MachineDefinition kelvane1uDefinition{
    .codeName = "kelvane1u",
    .platformName = "kp100nx",
    .backplanesFile = "bhs_backplanes.json",
    .risersFile = "bhs_risers.json",
    .psuConfigFiles = "bhs_2p_2psus.json",
    .maxCpu = 2,
    .maxDimm = 32,
    .maxPsu = 2,
    .maxPci = 8,
    .maxOcp = 2,
    .maxFanMod = 8,
    .maxFrontBp = 4,
    .maxRearBp = 1,
    .maxMiddleBp = 0,
    .maxFrontM2 = 0,
    .maxRearM2 = 1,
    .maxInternalM2 = 1,
    // Backplane VPD waits for the VPD service to be ready.
    .bpProbeStatic = false,
    .daisyCardVpdPath = "/com/halvex/vpdd/phy_card_vpd",
    .daisyCardFruName = "Mgt_Switch_Card",
    .miniVersion = "01W",
    .chassisHeightU = 1,
};

// The 1U mainstream machine: its definition and three overrides.
class Kelvane1u : public Highvol
{
  public:
    explicit Kelvane1u(Seams seams,
                       const MachineDefinition& machine = kelvane1uDefinition);
    ~Kelvane1u() override;

    Kelvane1u(const Kelvane1u&) = delete;
    Kelvane1u& operator=(const Kelvane1u&) = delete;
    Kelvane1u(Kelvane1u&&) = delete;
    Kelvane1u& operator=(Kelvane1u&&) = delete;

    void initPcieSlotMap() override;
    void serviceSetup() override;
    void getSkuConfig() override;
};

} // namespace Platform
