#include "threads.hpp"

#include "common/logging.hpp"
#include "common/serviceManager.hpp"
#include "common/sleep.hpp"
#include "dbus/bus.hpp"

#include <cstdlib>
#include <functional>

namespace Platform
{

namespace
{
// Runs one step; an exception is logged with the step's name and the thread
// goes on with its next step.
void guarded(const char* prefix, const std::function<void()>& step)
{
    try
    {
        step();
    }
    catch (const std::exception& e)
    {
        logCritical() << prefix << e.what();
    }
}
} // namespace

void hardwareThread(std::shared_ptr<Kelvane1u> platform)
{
    // The first publications need the object server of serviceInit.
    platform->waitForObjectServer();
    guarded("Exception in platformInfoInit: ",
            [&]() { platform->platformInfoInit(); });
    platform->initPcieSlotMap();

    hwtopod::serviceManager::notifyStage(
        hwtopod::serviceManager::Stage::waitingForFpga, "Waiting for the FPGA");
    platform->waitForFpga();
    logInfo() << "FPGA service is up";
    platform->fpgaDump();

    guarded("Exception in hwDeviceDiscovery: ", [&]() {
        platform->hwDeviceDiscovery();
        platform->readRiserTopology();
        platform->checkPresence();
        platform->getSkuConfig();
    });
    // Before the hand-over, which a waiting discovery follows with its own
    // later milestone.
    hwtopod::serviceManager::notifyStage(
        hwtopod::serviceManager::Stage::fpgaRead,
        "FPGA read out, waiting for the VPD service");
    platform->markHardwareDiscovered();

    guarded("Exception in getFpgaFanInfo: ",
            [&]() { platform->getFpgaFanInfo(); });
    guarded("Exception in powerFaultDetect:",
            [&]() { platform->powerFaultDetect(); });
    guarded("Exception in waitForVpd: ", [&]() { platform->waitForVpd(); });

    while (true)
    {
        guarded("Exception in closing loop: ", [&]() {
            platform->refreshFpgaBlock12();
            platform->applyPlatformCoolingSettings();
        });
        platform->sleepSeconds(10);
    }
}

void serviceThread(std::shared_ptr<Kelvane1u> platform)
{
    try
    {
        platform->serviceInit();
    }
    catch (const std::exception& e)
    {
        // Without its bus and its name the service is of no use; exit so
        // that systemd starts it anew.
        logCritical() << "Exception in serviceInit: " << e.what();
        std::_Exit(EXIT_FAILURE);
    }
    platform->serviceRun();
    platform->powerFaultMonitor();
    while (true)
    {
        guarded("Exception in service loop: ", [&]() {
            platform->setDevicePresence();
            platform->remedyChassisCloseEvent();
        });
        platform->sleepSeconds(10);
    }
}

} // namespace Platform
