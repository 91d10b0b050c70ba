#pragma once

#include "platformHighvol.hpp"

namespace Platform
{

// The 1U mainstream machine: constants in the constructor and three
// overrides.
class Kelvane1u : public Highvol
{
  public:
    Kelvane1u();
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
