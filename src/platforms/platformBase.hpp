#pragma once

#include "common/logging.hpp"
#include "common/paths.hpp"
#include "common/records.hpp"
#include "common/types.hpp"
#include "common/worker.hpp"
#include "dbus/bus.hpp"
#include "events/events.hpp"
#include "machineDefinition.hpp"
#include "monitor/faultTable.hpp"
#include "rules/matcher.hpp"
#include "rules/vpdValue.hpp"
#include "seams.hpp"

#include <boost/asio/io_context.hpp>
#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace Platform
{

// "E3.S" when any VPD object has the position id of such a backplane,
// else "NormalBP".
std::string backplaneTypeOf(const hwtopod::VpdCache& objects);

using hwtopod::DbusVariant;
using hwtopod::DeviceState;
using hwtopod::logCritical;
using hwtopod::logError;
using hwtopod::logInfo;
using hwtopod::logWarning;
using hwtopod::VpdProperties;

// What every machine of the product line shares: the D-Bus service, object
// publishing, rule documents, the VPD cache, the device-state table and the
// found-hardware documents.
//
// Threads and locks. The machine definition is a constant value.
// Everything the daemon publishes goes through the connection's
// run(), so the bus is used by one thread at a time. VPD discovery (the
// match callback's work, probeCachedVpdd and the probes) runs on
// discoveryWorker only: the io thread hands each signal to it, and on a
// restart the hardware thread hands it the objects it read, so the cache and
// the found-hardware documents have a single writer and need no lock.
// Journal records are sent under a mutex of their own (events.cpp), and
// productName has one too. The FPGA-derived members
// are written by the hardware thread before hwDiscoveryDone, an atomic flag
// that orders every later reader after them.
class Base
{
  public:
    explicit Base(Seams seams,
                  const MachineDefinition& machine = MachineDefinition{});
    virtual ~Base();

    Base(const Base&) = delete;
    Base& operator=(const Base&) = delete;
    Base(Base&&) = delete;
    Base& operator=(Base&&) = delete;

    // What the machine is reached through; fixed for the object's life.
    const Seams seams;
    // The absolute path placed below the root.
    std::string rootPath(std::string_view absolutePath) const
    {
        return seams.root.path(absolutePath);
    }
    void sleepSeconds(unsigned seconds) const
    {
        seams.sleep(std::chrono::seconds(seconds));
    }

    // Virtual operations, in their order.
    virtual void getHardwareRevision();
    virtual void getManufacturer();
    virtual void probeCachedVpdd();
    virtual void probeRiserVpddStatic(const std::string& path,
                                      std::uint64_t posId);
    virtual void probeCpu(const std::string& path);
    virtual void probeBpVpddDynamic(const std::string& path,
                                    std::uint64_t posId);
    virtual void probeRiserVpddDynamic(const std::string& path,
                                       std::uint64_t posId);
    virtual void initPcieSlotMap();
    // Machine hooks without a caller.
    virtual void preDiscoveryHook();
    virtual void postDiscoveryHook();
    virtual void platformInfoInit();
    virtual void serviceSetup();
    virtual void sendZmcEvent(std::string eventId, std::uint8_t index,
                              std::string deviceName);

    // Service start-up.
    void serviceInit();
    void serviceRun();

    // Publishing.
    std::shared_ptr<hwtopod::dbus::Interface> addDbusInterface(
        const std::string& path, const std::string& interfaceName);
    // The interface published at (path, interfaceName), or null.
    std::shared_ptr<hwtopod::dbus::Interface> findDbusInterface(
        const std::string& path, const std::string& interfaceName) const;
    void addJsonProperty(
        const std::shared_ptr<hwtopod::dbus::Interface>& interface,
        const std::string& key, const nlohmann::json& value);

    // Blocks until serviceInit has made the object server, so that the
    // hardware thread's first publications are not lost.
    void waitForObjectServer();
    // Blocks until serviceSetup has run (rule documents, vpdReadyPath).
    void waitForServiceSetup();

    // Sets hwDiscoveryDone once the FPGA read-out has ended, and wakes a
    // discovery that waits for it.
    void markHardwareDiscovered();
    void waitForHardwareDiscovery();
    std::chrono::seconds hardwareWaitLimit{180};

    // VPD discovery runs on this one thread: the match callback hands each
    // signal to it, and a restart hands it the objects read at start. So the
    // VPD cache, the found-hardware documents and the probes' state have a
    // single writer, and the io thread never waits on a peer service.
    std::unique_ptr<hwtopod::Worker> discoveryWorker;

    // Rule files and VPD.
    int loadTrd();
    void matchVpdd();
    void waitForVpd();
    void probeVpdd(const std::string& path);
    void probeBpVpddStatic(const std::string& path, std::uint64_t posId);
    void probeChassisMidplaneBaseOnPdbStatic(const std::string& path,
                                             std::uint64_t posId);
    void updateFruName(const std::string& path, const std::string& format,
                       hwtopod::DeviceType type, std::uint8_t index,
                       const std::string& name);
    void updateProductName();

    // FPGA device states.
    bool getFpgaDeviceState(std::uint32_t key);

    // Fault monitoring, device presence, chassis intrusion.
    void powerFaultDetect();
    void gpioMonitor(const std::vector<hwtopod::FpgaGpioEntry>& rows);
    void setDevicePresence();
    void remedyChassisCloseEvent();

    std::string getProductName() const;

    // What the CPU check remembers from call to call: CPU 1's values and
    // the vote and event already cast.
    struct CpuCheckState
    {
        bool cpuPowerDenied = false;
        bool cpu1Stored = false;
        std::uint64_t cpu1CoreFeatureFlags = 0;
        std::uint64_t cpu1CpuId = 0;
        std::uint64_t cpu1Stepping = 0;
        std::string cpu1SkuNumber;
        std::string cpu1SSpecOrQdfNumber;
        bool cpuFeatureMismatchSent = false;
    };
    CpuCheckState cpuCheck;

    // What this machine is; never changes.
    const MachineDefinition definition;
    std::uint64_t motherboardRevisionBase = 0;
    long upTimeSeconds = 0;
    // Service thread only.
    bool chassisCloseRemedied = false;
    // Set once by the hardware thread after the FPGA read-out. Atomic, and
    // set under stateMutex by markHardwareDiscovered: a reader that sees it
    // true (setDevicePresence, remedyChassisCloseEvent, probeCachedVpdd)
    // sees every FPGA-derived member written before it.
    std::atomic<bool> hwDiscoveryDone = false;
    // Service thread only.
    bool devicePresencePublished = false;
    // No lock: written by the hardware thread only, and only before
    // hwDiscoveryDone (device table scan, presence analysis); every other
    // thread reads it only after seeing hwDiscoveryDone, and nothing writes
    // it afterwards.
    std::map<std::uint32_t, DeviceState> fpgaDevices;
    // Written by the constructor before any thread starts.
    bool normalStart = true;
    // VPD discovery only (one thread at a time, see vpdObjects).
    bool vpdMatchCompleted = false;
    // On a restart: waitForVpd has read the service and run discovery.
    bool vpdReadoutDone = false;
    boost::asio::io_context io;
    std::string serviceName;
    // No lock: one writer at a time. The match callback and the restart's
    // read of the VPD service hand their merge to VPD discovery, whose work
    // runs one task after the other; the probes that read it run there too.
    boost::container::flat_map<std::string, VpdProperties> vpdObjects;
    // Guarded by stateMutex: added to by the hardware thread (platform
    // information), the service thread (service objects, device presence)
    // and VPD discovery (boards), and looked up by all three.
    std::map<std::pair<std::string, std::string>,
             std::shared_ptr<hwtopod::dbus::Interface>>
        dbusInterfaces;
    std::map<std::string, bool> backplaneInstalled;
    std::shared_ptr<hwtopod::dbus::ObjectServer> objectServer;
    std::shared_ptr<hwtopod::dbus::Connection> connection;
    std::shared_ptr<std::thread> ioThread;
    std::shared_ptr<std::thread> gpioThread;
    // No lock: appended to by the probes and copied by the FRU name check,
    // all of them VPD discovery, which has a single writer (see vpdObjects).
    nlohmann::json backplanesFound;
    nlohmann::json risersFound;
    nlohmann::json midplanesFound;
    std::shared_ptr<nlohmann::json> bpTrdRules;
    std::shared_ptr<nlohmann::json> trdBackplanes;
    std::shared_ptr<nlohmann::json> trdRisers;
    std::shared_ptr<nlohmann::json> trdMidplanes;
    std::shared_ptr<nlohmann::json> backplanesData;
    std::shared_ptr<nlohmann::json> risersData;
    std::shared_ptr<nlohmann::json> powerBackplanesData;
    std::map<std::string, std::unique_ptr<hwtopod::dbus::Match>> dbusMatches;
    std::string bpTrdRulesFile;
    std::string vpdReadyPath;
    std::string backplaneType = "NONE";
    std::string gpioChipName;
    std::string productName = "Vantarack";

  protected:
    // The cached VPD object of path, when the rule documents of its probe
    // are loaded; else null, and the ERROR line notLoaded or
    // "<prober>: path <path> was not found".
    const VpdProperties* cachedVpd(
        const std::shared_ptr<nlohmann::json>& rules,
        const std::shared_ptr<nlohmann::json>& topology,
        const std::string& path, std::string_view notLoaded,
        std::string_view prober) const;

    // Logs what the matcher said. A match that failed on the VPD object
    // throws, to be reported for that object; false when there is no match.
    static bool acceptMatch(const hwtopod::rules::BoardMatch& match);

    // The D-Bus object of a matched board. Names the bus cannot take are
    // refused with one line and give null: the board goes on without its
    // object. duplicate is set when the object exists already (or there is
    // no object server yet): the board has been published and is not again.
    std::shared_ptr<hwtopod::dbus::Interface> addBoardInterface(
        const std::string& objectPath, const std::string& element,
        const std::string& interfaceName, bool& duplicate);

    // One step of publishing a board: an exception in it is reported for
    // the VPD object, in the words the walk uses for an object that fails,
    // and ends that step alone.
    static void publishStep(const std::string& vpdPath,
                            const std::function<void()>& step);

    void linkRiserSlots(const nlohmann::json& record) const;
    static void sendRiserPresence(const nlohmann::json& record);

    // The I2C link of a backplane record, or the warning that it lacks the
    // keys for one.
    void linkBackplane(const nlohmann::json& record) const;
    void linkMidplane(const nlohmann::json& record) const;

    // The end of every probe that accepts a board: the record joins its
    // found-hardware document, its keys become the interface's properties,
    // the interface goes on the bus, and the result file is written anew.
    // A null interface (names refused) leaves out the D-Bus part alone.
    void publishRecord(
        const std::shared_ptr<hwtopod::dbus::Interface>& interface,
        nlohmann::json record, nlohmann::json& document, const std::string& key,
        const std::string& file, std::string_view saveMessage);

    // The match callback on InterfacesAdded of the VPD service.
    void onVpdInterfacesAdded(const std::string& path,
                              const hwtopod::InterfaceProperties& interfaces);

    // serviceInit's publications.
    void publishSoftwareConfig();
    void publishLowSecurityJumper();
    void publishChassisDimension();
    void publishPsuConfigs();

  private:
    // Guards the members below and dbusInterfaces, written by the hardware,
    // service and io threads.
    mutable std::mutex stateMutex;
    std::condition_variable stateChanged;
    bool serviceSetupDone = false;
    // productName is written on the io thread and read on the service thread.
    mutable std::mutex productNameMutex;
};

} // namespace Platform
