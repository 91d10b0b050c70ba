#include "common/paths.hpp"
#include "common/sleep.hpp"
#include "fpga/fpgaImages.hpp"
#include "monitor/gpioMonitor.hpp"
#include "platformHighvol.hpp"

#include <filesystem>
#include <fstream>
#include <system_error>

namespace Platform
{

namespace
{
constexpr const char* devicePresencePath =
    "/com/halvex/platform/hardware/device";
constexpr const char* devicePresenceInterface =
    "com.halvex.hwtopod.device.presence";

constexpr const char* chassisHwmonDir =
    "/sys/devices/platform/ahb/ahb:apb/1e6ef010.chassis/hwmon/";
constexpr const char* defaultHwmonEntry = "hwmon0";
constexpr const char* intrusionStateFile = "/intrusion_raw";
constexpr unsigned chassisCloseDelaySeconds = 90;

// The hwmon entry of the chassis device: the first directory whose name
// holds "hwmon", else the default entry. Empty when the chassis directory
// can't be listed.
std::string chassisHwmonEntry(const std::string& directory)
{
    std::error_code error;
    std::filesystem::directory_iterator items(directory, error);
    if (error)
    {
        return {};
    }
    for (; items != std::filesystem::directory_iterator();
         items.increment(error))
    {
        if (error)
        {
            return {};
        }
        std::string name = items->path().filename().string();
        std::error_code typeError;
        if (name.find("hwmon") != std::string::npos &&
            items->is_directory(typeError))
        {
            return name;
        }
    }
    return defaultHwmonEntry;
}
} // namespace

void Base::powerFaultDetect()
{
    try
    {
        for (const auto& row : hwtopod::fpgaGpioTable())
        {
            if (!row.monitored)
            {
                continue;
            }
            std::uint8_t value = 0;
            if (hwtopod::readFpgaDeviceBit(row.fpgaDevice, row.block,
                                           row.offset, row.bit, &value) != 0)
            {
                continue;
            }
            if ((value != 0) == row.activeLevel)
            {
                logWarning()
                    << "powerFaultDetect: bit " << row.lineName << " error";
                sendZmcEvent(row.eventId, row.index, row.deviceName);
            }
        }
    }
    catch (const std::exception& e)
    {
        logCritical() << "Exception in powerFaultDetect:" << e.what();
    }
}

void Base::gpioMonitor(const std::vector<hwtopod::FpgaGpioEntry>& rows,
                       const std::stop_token& stop)
{
    logInfo() << "Base::gpioMonitor()";
    hwtopod::FaultLineReports reports;
    reports.sendEvent = [this](const std::string& eventId, std::uint8_t index,
                               const std::string& deviceName) {
        sendZmcEvent(eventId, index, deviceName);
    };
    reports.controllerReady = [this](const std::string& chipName) {
        gpioChipName = chipName;
    };
    hwtopod::monitorFaultLines(*seams.gpio, seams.sleep, rows, reports, stop);
}

void Base::setDevicePresence()
{
    const auto readout = hwDiscoveryDone();
    if (!readout || service.devicePresencePublished)
    {
        return;
    }
    try
    {
        auto interface =
            addDbusInterface(devicePresencePath, devicePresenceInterface);
        if (!interface)
        {
            return;
        }
        for (const auto& [key, device] : readout->fpgaDevices)
        {
            // Names such as the liquid leak rows' are no member names.
            if (hwtopod::dbus::isValidMemberName(device.name))
            {
                interface->registerProperty(device.name, device.state);
            }
        }
        interface->initialize();
        service.devicePresencePublished = true;
    }
    catch (const std::exception& e)
    {
        logCritical() << "error setDevicePresence Service exception "
                      << e.what();
    }
}

void Base::remedyChassisCloseEvent()
{
    const auto readout = hwDiscoveryDone();
    if (!readout || service.chassisCloseRemedied)
    {
        return;
    }
    for (const auto& [key, device] : readout->fpgaDevices)
    {
        if (device.name == "INTRUSSION_CONN" && !device.state)
        {
            return;
        }
    }

    const std::string directory = rootPath(chassisHwmonDir);
    const std::string entry = chassisHwmonEntry(directory);
    if (entry.empty())
    {
        // The chassis directory is missing or can't be listed: taken like a
        // state file that can't be opened, so the next pass looks again.
        return;
    }
    std::ifstream stateFile(directory + entry + intrusionStateFile);
    if (!stateFile.is_open())
    {
        return;
    }
    char state = '\0';
    stateFile.get(state);
    stateFile.close();

    if (state == '1')
    {
        logWarning() << "debug remedyChassisCloseEvent sleep for 90s";
        sleepSeconds(chassisCloseDelaySeconds);
        hwtopod::sendChassisClosedEvent(getProductName());
    }
    service.chassisCloseRemedied = true;
}

void Highvol::powerFaultMonitor()
{
    try
    {
        std::vector<hwtopod::FpgaGpioEntry> rows;
        for (const auto& row : hwtopod::fpgaGpioTable())
        {
            if (row.monitored)
            {
                rows.push_back(row);
            }
        }
        if (gpioThread.joinable())
        {
            return;
        }
        // The thread owns its copy of the rows; this list ends here.
        gpioThread = std::jthread(
            [this, rows = std::move(rows)](const std::stop_token& stop) {
            gpioMonitor(rows, stop);
        });
        logInfo() << "Thread for gpioMonitor is forked";
    }
    catch (const std::exception& e)
    {
        logCritical() << "Exception in powerFaultMonitor:" << e.what();
    }
}

} // namespace Platform
