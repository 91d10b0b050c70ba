#include "platformBase.hpp"

#include "common/logging.hpp"
#include "common/serviceManager.hpp"
#include "dbus/client.hpp"
#include "rules/rules.hpp"

#include <pthread.h>
#include <sys/sysinfo.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Platform
{

using hwtopod::LogLevel;
using hwtopod::LogLine;

namespace
{
// Leading decimal digits of text as an unsigned 32-bit number; empty when
// there is no digit or the number overflows.
std::optional<std::uint32_t> leadingNumber(const char* text)
{
    std::uint32_t value = 0;
    if (std::from_chars(text, text + std::strlen(text), value).ec !=
        std::errc{})
    {
        return std::nullopt;
    }
    return value;
}
} // namespace

Base::Base(Seams seams, const MachineDefinition& machine) :
    seams(std::move(seams)),
    discoveryWorker(std::make_unique<hwtopod::Worker>("discovery")),
    definition(machine)
{
    if (const char* revision = std::getenv("HW_REV_BASE"))
    {
        if (auto number = leadingNumber(revision))
        {
            logInfo() << "Motherboard revision compatibility is : " << *number;
            motherboardRevisionBase = *number;
        }
        else
        {
            logWarning() << "Motherboard revision compatibility is unkown";
        }
    }

    const char* status = std::getenv("HWTOPOD_STATUS");
    if (status == nullptr)
    {
        logWarning() << "Environment variable HWTOPOD_STATUS is not set.";
    }
    else if (std::string_view(status) == "normal")
    {
        logInfo() << "hwtopod is started normally";
    }
    else
    {
        normalStart = false;
        logWarning() << "hwtopod is restarted";
    }

    struct sysinfo info
    {};
    int result = sysinfo(&info);
    if (result == 0)
    {
        upTimeSeconds = info.uptime;
    }
    else
    {
        std::printf("code error = %d\n", result);
    }
    logInfo() << "System is up " << upTimeSeconds << " seconds";
}

Base::~Base()
{
    stopThreads();
    // Matches and interfaces go before the connection they live on.
    dbusMatches.clear();
    dbusInterfaces.clear();
    objectServer.reset();
    connection.reset();
}

void Base::stopThreads()
{
    if (gpioThread.joinable())
    {
        gpioThread.request_stop();
        gpioThread.join();
    }
    // The worker may be waiting on the io thread: stop it first.
    discoveryWorker.reset();
    if (ioThread.joinable())
    {
        ioThread.request_stop();
        ioThread.join();
    }
}

void Base::getHardwareRevision()
{
    auto revision = hwtopod::dbus::getPropertyValue<std::uint64_t>(
        "xyz.openbmc_project.EntityManager",
        "/xyz/openbmc_project/inventory/system/board/kp100x_baseboard",
        "xyz.openbmc_project.Inventory.Decorator.Asset", "HardwareRevision");
    logInfo() << "HardwareRevision is " << revision;
}

void Base::getManufacturer()
{
    auto manufacturer = hwtopod::dbus::getPropertyValue<std::string>(
        "xyz.openbmc_project.EntityManager",
        "/xyz/openbmc_project/inventory/system/board/kp200x_baseboard",
        "xyz.openbmc_project.Inventory.Decorator.Asset", "Manufacturer");
    logInfo() << "Platform mfg is " << manufacturer;
}

void Base::notifyDiscovery(bool ended) const
{
    using hwtopod::serviceManager::Stage;
    if (!ended)
    {
        hwtopod::serviceManager::notifyStage(Stage::discoveryRunning,
                                             "Board discovery running");
        return;
    }
    // A found-hardware document holds its records in one array; one not
    // written yet is null and counts none.
    auto count = [](const nlohmann::json& found) {
        std::size_t records = 0;
        if (found.is_object())
        {
            for (const auto& entry : found)
            {
                records += entry.is_array() ? entry.size() : 0;
            }
        }
        return std::to_string(records);
    };
    hwtopod::serviceManager::notifyStage(
        Stage::discoveryEnded,
        "Board discovery has ended: " + count(discovery.backplanesFound) +
            " backplanes, " + count(discovery.risersFound) + " risers, " +
            count(discovery.midplanesFound) + " midplanes found");
}

void Base::probeCachedVpdd()
{
    notifyDiscovery(false);
    forEachCachedObject([this](const std::string& path) { probeVpdd(path); });
    notifyDiscovery(true);
}

void Base::forEachCachedObject(
    const std::function<void(const std::string&)>& probe)
{
    // Copy the paths: a probe may not change the map, but the walk must not
    // depend on that.
    std::vector<std::string> paths;
    paths.reserve(discovery.vpdObjects.size());
    for (const auto& entry : discovery.vpdObjects)
    {
        paths.push_back(entry.first);
    }
    // Every file of the walk is on storage when it returns: its callers then
    // say that discovery has ended.
    const struct Writer
    {
        Base& base;
        ~Writer()
        {
            base.resultWriter.reset();
        }
    } writer{*this};
    resultWriter = std::make_unique<hwtopod::rules::FoundHardwareWriter>();
    for (const auto& path : paths)
    {
        // An error ends the probing of this one object, not the walk.
        try
        {
            probe(path);
        }
        catch (const std::exception& e)
        {
            logCritical() << "Exception in probeCachedVpdd for VPDD path "
                          << path << ": " << e.what();
        }
    }
}

void Base::probeBpVpddDynamic(const std::string& /*path*/,
                              std::uint64_t /*posId*/)
{}

void Base::probeRiserVpddDynamic(const std::string& /*path*/,
                                 std::uint64_t /*posId*/)
{}

void Base::initPcieSlotMap() {}

void Base::fpgaReadoutArrived() {}

void Base::preDiscoveryHook() {}

void Base::postDiscoveryHook() {}

void Base::serviceSetup() {}

void Base::sendZmcEvent(const std::string& eventId, std::uint8_t index,
                        const std::string& deviceName)
{
    hwtopod::writeZmcEvent(eventId, index, deviceName);
}

void Base::serviceInit()
{
    if (objectServer || connection)
    {
        logInfo() << "Base::serviceInit had been executed";
        return;
    }
    serviceName = "com.halvex.hwtopod";
    // A failure here (no bus, the name held by another process) leaves this
    // function as hwtopod::dbus::Error; the service thread ends the process
    // so that systemd restarts it.
    auto newConnection = hwtopod::dbus::Connection::openSystemBus(io);
    auto server = std::make_shared<hwtopod::dbus::ObjectServer>(newConnection);
    {
        std::lock_guard lock(stateMutex);
        connection = newConnection;
        objectServer = server;
    }
    stateChanged.notify_all();
    connection->requestName(serviceName, 3);

    // A bus failure while one object goes out costs that object alone; the
    // later ones are still tried.
    const std::pair<const char*, void (Base::*)()> publications[] = {
        {"Exception in publishSoftwareConfig: ", &Base::publishSoftwareConfig},
        {"Exception in publishLowSecurityJumper: ",
         &Base::publishLowSecurityJumper},
        {"Exception in publishChassisDimension: ",
         &Base::publishChassisDimension},
        {"Exception in publishPsuConfigs: ", &Base::publishPsuConfigs}};
    for (const auto& [prefix, publish] : publications)
    {
        try
        {
            (this->*publish)();
        }
        catch (const std::exception& e)
        {
            logCritical() << prefix << e.what();
        }
    }

    serviceSetup();
    {
        std::lock_guard lock(stateMutex);
        serviceSetupDone = true;
    }
    stateChanged.notify_all();
    logInfo() << "Service is set";
    // Not before: the unit is of Type=notify so that a VPD service ordered
    // after it starts only once the match is installed; on a first start
    // its objects come as signals, and a signal before the match is lost.
    hwtopod::serviceManager::notifyReady();
}

void Base::serviceRun()
{
    if (!objectServer || !connection)
    {
        logInfo() << "Base::serviceInit was notexecuted";
        return;
    }
    if (ioThread.joinable())
    {
        return;
    }
    ioThread = std::jthread([this](const std::stop_token& stop) {
        ::pthread_setname_np(::pthread_self(), "bus");
        const std::stop_callback stopIo(stop, [this]() { io.stop(); });
        // The watchdog is fed by this loop because the daemon is of no use
        // without it: every publication and every VPD signal goes through
        // it. A loop that ended on an exception or hangs in a handler stops
        // the feed, and the service manager restarts the daemon, which then
        // reads the VPD service's objects on its restart path.
        const hwtopod::serviceManager::WatchdogFeeder watchdog(io);
        try
        {
            connection->runLoop();
        }
        catch (const std::exception& e)
        {
            logCritical() << "Exception in io running: " << e.what();
        }
    });
    logInfo() << "Thread for service is forked";
}

void Base::waitForObjectServer()
{
    // No limit of our own. The object server comes right after the bus
    // connection, so only a bus that never answers holds this up: serviceInit
    // then fails when the bus gives up or closes, and the process ends; a bus
    // that stays silent never lets the daemon report ready, and the unit
    // (Type=notify) is restarted after its start time-out. Going on without the
    // object server would lose this thread's publications for the life of the
    // process, and a second time-out here would only race the unit's.
    std::unique_lock lock(stateMutex);
    stateChanged.wait(lock, [this]() { return objectServer != nullptr; });
}

void Base::waitForServiceSetup()
{
    std::unique_lock lock(stateMutex);
    stateChanged.wait(lock, [this]() { return serviceSetupDone; });
}

void Base::markHardwareDiscovered()
{
    auto readout = std::make_shared<const FpgaReadout>(hardware.readout);
    {
        std::lock_guard lock(stateMutex);
        handedOver = std::move(readout);
    }
    stateChanged.notify_all();
    discoveryWorker->post([this]() { fpgaReadoutArrived(); });
}

std::shared_ptr<const FpgaReadout> Base::hwDiscoveryDone() const
{
    std::lock_guard lock(stateMutex);
    return handedOver;
}

const FpgaReadout& Base::fpgaPicture()
{
    // Not taken while the riser checks wait for it: a walk that began
    // without the read-out ends without it.
    if (!discovery.fpga && !discovery.riserChecksWaitForFpga)
    {
        discovery.fpga = hwDiscoveryDone();
        if (discovery.fpga)
        {
            discovery.fpgaMatchQueue = discovery.fpga->fpgaMatchQueue;
        }
    }
    static const FpgaReadout none;
    return discovery.fpga ? *discovery.fpga : none;
}

void Base::waitForHardwareDiscovery()
{
    // Bounded: an FPGA whose device node never appears must not keep every
    // board off the bus and let VPD signals pile up behind discovery. After
    // hardwareWaitLimit discovery publishes the boards without the picture,
    // and its riser checks wait for it (Highvol::fpgaReadoutArrived); three
    // minutes is well past a slow FPGA start and short enough for a
    // technician waiting on the boards.
    std::unique_lock lock(stateMutex);
    if (!stateChanged.wait_for(lock, hardwareWaitLimit, [this]() {
            return handedOver != nullptr;
        }))
    {
        logWarning() << "Board discovery waited " << hardwareWaitLimit.count()
                     << " seconds for the FPGA read-out and goes on without it";
    }
}

std::shared_ptr<hwtopod::dbus::Interface> Base::addDbusInterface(
    const std::string& path, const std::string& interfaceName)
{
    // Null only without an object server or for a pair added already. A
    // path or interface name that the bus cannot carry (a board Name "Front
    // BP-1", an Interface that is no interface name) is entered and returned
    // like any other: the bus refuses it only when the interface is
    // initialised, and initialize() then throws hwtopod::dbus::Error with
    // the binding's text. So the caller does all it does before the
    // initialisation (link, events, FRU name, record), and the failure
    // leaves it at that step as any exception there does; the pair stays
    // taken, and a second probe of the same board gets null.
    std::shared_ptr<hwtopod::dbus::Interface> interface;
    {
        std::lock_guard lock(stateMutex);
        if (!objectServer)
        {
            return nullptr;
        }
        auto key = std::make_pair(path, interfaceName);
        if (dbusInterfaces.contains(key))
        {
            interface = nullptr;
        }
        else
        {
            interface = objectServer->addInterface(path, interfaceName);
            dbusInterfaces.emplace(std::move(key), interface);
        }
    }
    if (!interface)
    {
        logInfo() << "Interface " << interfaceName
                  << " is already added to path " << path;
        return nullptr;
    }
    logInfo() << "Interface " << interfaceName << " is added to path " << path;
    return interface;
}

std::shared_ptr<hwtopod::dbus::Interface> Base::findDbusInterface(
    const std::string& path, const std::string& interfaceName) const
{
    std::lock_guard lock(stateMutex);
    auto found = dbusInterfaces.find(std::make_pair(path, interfaceName));
    return found == dbusInterfaces.end() ? nullptr : found->second;
}

std::string Base::getProductName() const
{
    std::lock_guard lock(productNameMutex);
    return productName;
}

} // namespace Platform
