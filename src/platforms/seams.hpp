#pragma once

#include "common/paths.hpp"
#include "common/sleep.hpp"
#include "fpga/registerAccess.hpp"
#include "monitor/gpioLines.hpp"

#include <memory>

namespace Platform
{

// What the platform object reaches the machine through, given to it at
// construction: tests hand in their own, so that several platforms can live
// side by side without process-wide state.
struct Seams
{
    // The fault lines, used by the monitor thread alone.
    std::shared_ptr<hwtopod::FaultLineGpio> gpio;
    // The FPGA registers, read by the hardware thread alone.
    std::shared_ptr<hwtopod::RegisterAccess> registers;
    // Every wait of seconds.
    hwtopod::SleepFunction sleep;
    // Where every absolute path is placed.
    hwtopod::Root root;
};

// The machine's own: libgpiod, the FPGA register library, real sleeping, and
// the root given.
Seams machineSeams(hwtopod::Root root);

} // namespace Platform
