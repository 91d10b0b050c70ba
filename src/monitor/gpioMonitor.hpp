#pragma once

// The fault line monitor: finds the FPGA's GPIO controller, watches the
// monitored lines of the fault line table for edges and reports each edge.

#include "common/sleep.hpp"
#include "faultTable.hpp"
#include "gpioLines.hpp"

#include <cstdint>
#include <functional>
#include <stop_token>
#include <string>
#include <vector>

namespace hwtopod
{

struct FaultLineReports
{
    // Sends a power fault or thermal trip event: short id, CPU number or
    // noCpuIndex, device name.
    std::function<void(const std::string& eventId, std::uint8_t index,
                       const std::string& deviceName)>
        sendEvent;
    // Told once, the name of the controller whose lines are watched.
    std::function<void(const std::string& chipName)> controllerReady;
};

// Body of the monitor thread, over the lines of gpio; waits between
// discovery attempts go through sleep. Returns when it gives up (after the
// last failed discovery attempt or on an error while watching) or as soon as
// a stop is requested. Throws nothing of the standard exception family.
void monitorFaultLines(FaultLineGpio& gpio, const SleepFunction& sleep,
                       const std::vector<FpgaGpioEntry>& rows,
                       const FaultLineReports& reports,
                       const std::stop_token& stop = {});

} // namespace hwtopod
