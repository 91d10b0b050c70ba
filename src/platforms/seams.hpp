#pragma once

#include "common/paths.hpp"
#include "common/sleep.hpp"
#include "fpga/registerAccess.hpp"
#include "monitor/gpioLines.hpp"
#include "monitor/lineReader.hpp"

#include <memory>

namespace Platform
{

// What the platform object reaches the machine through, given to it at
// construction, so that several platforms can live side by side without
// process-wide state. A member left out is the machine's own.
struct Seams
{
    // The fault lines, used by the monitor thread alone.
    std::shared_ptr<hwtopod::FaultLineGpio> gpio =
        hwtopod::libgpiodLines(hwtopod::Root());
    // The security jumper's line, read once by the service thread.
    std::shared_ptr<hwtopod::LineReader> jumper =
        hwtopod::libgpiodLineReader(hwtopod::Root());
    // The FPGA registers, read by the hardware thread alone.
    std::shared_ptr<hwtopod::RegisterAccess> registers =
        hwtopod::libraryRegisters();
    // Every wait of seconds.
    hwtopod::SleepFunction sleep = hwtopod::realSleep;
    // Where every absolute path is placed.
    hwtopod::Root root = hwtopod::Root();

    // The machine's own seams, every absolute path placed under root: the
    // GPIO controllers' device nodes too.
    static Seams machine(const hwtopod::Root& root)
    {
        return Seams{.gpio = hwtopod::libgpiodLines(root),
                     .jumper = hwtopod::libgpiodLineReader(root),
                     .root = root};
    }
};

} // namespace Platform
