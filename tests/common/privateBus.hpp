#pragma once

#include "sandbox.hpp"

#include <sys/types.h>

#include <string>

namespace hwtopod::test
{

// A private dbus-daemon with a system-bus configuration. While it lives,
// DBUS_SYSTEM_BUS_ADDRESS points at it, so the code under test and the
// clients of the test use it as their system bus.
class PrivateBus
{
  public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;
    PrivateBus(PrivateBus&&) = delete;
    PrivateBus& operator=(PrivateBus&&) = delete;

    const std::string& address() const
    {
        return busAddress;
    }

  private:
    TempDir dir;
    pid_t pid = -1;
    std::string busAddress;
    std::string previousAddress;
    bool hadPrevious = false;
};

} // namespace hwtopod::test
