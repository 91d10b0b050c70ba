#include "gpioMonitor.hpp"

#include "common/logging.hpp"
#include "common/sleep.hpp"
#include "gpioLines.hpp"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <functional>
#include <optional>
#include <system_error>
#include <utility>

namespace hwtopod
{

namespace
{
constexpr int discoveryAttempts = 5;
constexpr unsigned discoveryRetrySeconds = 5;
constexpr const char* consumerName = "monitor";

// A descriptor that becomes readable once a stop is requested: the wait on
// the lines watches it too, so the thread blocks with no time limit and
// still ends at once on a stop.
class StopWake
{
  public:
    explicit StopWake(const std::stop_token& stop) :
        fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        if (fd < 0)
        {
            throw std::system_error(errno, std::generic_category(),
                                    "eventfd for the monitor's stop");
        }
        onStop.emplace(stop, [this]() { signal(); });
    }
    StopWake(const StopWake&) = delete;
    StopWake& operator=(const StopWake&) = delete;
    ~StopWake()
    {
        // The callback runs on the thread that asks for the stop; removing
        // it waits for a run in progress, so the descriptor is closed only
        // after its last write.
        onStop.reset();
        ::close(fd);
    }
    int descriptor() const
    {
        return fd;
    }

  private:
    void signal() const
    {
        static_cast<void>(::eventfd_write(fd, 1));
    }

    int fd;
    std::optional<std::stop_callback<std::function<void()>>> onStop;
};

// One discovery attempt: finds the controller that holds the rows' lines and
// selects its monitored lines. The controller's name when there is a line
// to watch, otherwise empty. Failures of the attempt as a whole throw.
std::string discoverLines(FaultLineGpio& gpio,
                          const std::vector<FpgaGpioEntry>& rows, int attempt)
{
    std::string chipName;
    logInfo() << "Check FPGA GPIO device:" << rows.size() << " pins";
    // The controller of the last line found is taken.
    for (const auto& row : rows)
    {
        if (auto location = gpio.findLine(row.lineName))
        {
            chipName = location->chipName;
        }
    }
    if (chipName.empty())
    {
        logWarning() << "FPGA GPIO device is not ready, retry = " << attempt;
        return {};
    }

    gpio.openChip(chipName);
    std::vector<unsigned> offsets;
    for (const auto& row : rows)
    {
        if (!row.monitored)
        {
            continue;
        }
        try
        {
            auto location = gpio.findLine(row.lineName);
            if (!location)
            {
                logCritical() << "Line " << row.lineName << " not found.";
                continue;
            }
            if (location->chipName != chipName)
            {
                logInfo() << "Line " << row.lineName
                          << " is located in different gpio controller: "
                          << location->chipName;
                continue;
            }
            offsets.push_back(location->offset);
        }
        catch (const std::exception& e)
        {
            logCritical() << "Error: " << e.what();
        }
    }
    if (!gpio.selectLines(offsets))
    {
        return {};
    }
    return chipName;
}

void handleEvent(const std::vector<FpgaGpioEntry>& rows,
                 const GpioEdgeEvent& event, const FaultLineReports& reports)
{
    logInfo() << event.lineName << " (#" << event.lineOffset
              << ") get event type: " << event.type;
    auto row = std::find_if(rows.begin(), rows.end(), [&](const auto& entry) {
        return event.lineName == entry.lineName;
    });
    if (row == rows.end())
    {
        logWarning() << event.lineName << " not found in fpga_gpio_table";
        return;
    }
    logInfo() << event.lineName << " found in fpga_gpio_table, eventType "
              << row->deviceName;
    if (!row->monitored)
    {
        return;
    }
    // The active edge leads to the row's active level.
    const bool activeEdge = (event.type == gpioRisingEdge) == row->activeLevel;
    if (activeEdge)
    {
        reports.sendEvent(row->eventId, row->index, row->deviceName);
        return;
    }
    logInfo() << " Another edge come for " << row->lineName;
    if (std::strlen(row->deassertEventId) != 0)
    {
        reports.sendEvent(row->deassertEventId, row->index, row->deviceName);
    }
}

// Requests the selected lines and reports their edges until a stop.
void watchLines(FaultLineGpio& gpio, const std::vector<FpgaGpioEntry>& rows,
                const FaultLineReports& reports, const std::stop_token& stop)
{
    const StopWake wake(stop);
    gpio.requestBothEdges(consumerName);
    while (!stop.stop_requested())
    {
        for (unsigned offset : gpio.waitForEvents(wake.descriptor()))
        {
            logInfo() << "Change detected on GPIO line " << offset;
            for (const auto& event : gpio.readEvents(offset))
            {
                handleEvent(rows, event, reports);
            }
        }
    }
}
} // namespace

void monitorFaultLines(FaultLineGpio& gpio, const SleepFunction& sleep,
                       const std::vector<FpgaGpioEntry>& rows,
                       const FaultLineReports& reports,
                       const std::stop_token& stop)
{
    std::string chipName;
    for (int attempt = discoveryAttempts;
         attempt > 0 && chipName.empty() && !stop.stop_requested();)
    {
        try
        {
            chipName = discoverLines(gpio, rows, attempt);
        }
        catch (const std::exception& e)
        {
            chipName.clear();
            logCritical() << "Exception in gpioMonitor, setup controller: "
                          << e.what() << ", retry " << attempt;
        }
        if (chipName.empty())
        {
            sleep(std::chrono::seconds(discoveryRetrySeconds));
            --attempt;
        }
    }
    if (chipName.empty())
    {
        return;
    }
    reports.controllerReady(chipName);
    logInfo() << "Setup VRs & powergoods in FPGA gpio device: " << chipName;

    try
    {
        watchLines(gpio, rows, reports, stop);
    }
    catch (const std::exception& e)
    {
        logCritical() << "Exception in gpioMonitor, fetch data: " << e.what();
    }
    try
    {
        gpio.releaseLines();
    }
    catch (const std::exception& e)
    {
        logCritical() << "Exception in gpioMonitor, release lines: "
                      << e.what();
    }
}

} // namespace hwtopod
