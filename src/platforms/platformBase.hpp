#pragma once

#include "common/logging.hpp"
#include "common/paths.hpp"
#include "common/records.hpp"
#include "common/types.hpp"
#include "common/worker.hpp"
#include "dbus/bus.hpp"
#include "events/events.hpp"
#include "fpgaReadout.hpp"
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
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace hwtopod::rules
{
class FoundHardwareWriter;
} // namespace hwtopod::rules

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
// Run-time state is grouped by the thread that owns it: `hardware` for the
// hardware thread, `discovery` for the VPD discovery worker, `service` for the
// service thread; state that several threads share sits beside the mutex that
// guards it (stateMutex, productNameMutex). The machine definition is a
// constant value. Everything the daemon publishes goes through the
// connection's run(), so the bus is used by one thread at a time.
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
    // Runs on the discovery worker each time the hardware thread hands its
    // read-out over; for checks that a walk without it left waiting.
    virtual void fpgaReadoutArrived();
    // Machine hooks without a caller.
    virtual void preDiscoveryHook();
    virtual void postDiscoveryHook();
    virtual void platformInfoInit();
    virtual void serviceSetup();
    virtual void sendZmcEvent(const std::string& eventId, std::uint8_t index,
                              const std::string& deviceName);

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

    // Hands the hardware thread's read-out over as a value nobody changes
    // again, and wakes a discovery that waits for it. Called again, it hands
    // over a fresh copy; a discovery that has taken one keeps it.
    void markHardwareDiscovered();
    // The read-out handed over, or null while the hardware thread reads.
    std::shared_ptr<const FpgaReadout> hwDiscoveryDone() const;
    void waitForHardwareDiscovery();
    std::chrono::seconds hardwareWaitLimit{180};
    // Tells the service manager that board discovery runs, or has ended
    // with the boards of the found-hardware documents.
    void notifyDiscovery(bool ended) const;

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
    // The hardware thread's reading of its own read-out.
    bool getFpgaDeviceState(std::uint32_t key);

    // Fault monitoring, device presence, chassis intrusion.
    void powerFaultDetect();
    void gpioMonitor(const std::vector<hwtopod::FpgaGpioEntry>& rows,
                     const std::stop_token& stop = {});
    void setDevicePresence();
    void remedyChassisCloseEvent();

    std::string getProductName() const;

    // The hardware thread's own: the FPGA read-out it fills before handing
    // it over.
    struct HardwareThreadState
    {
        FpgaReadout readout;
    };
    HardwareThreadState hardware;

    // The VPD discovery worker's own. The match callback and the restart's
    // read of the VPD service hand their work to it, so everything here has
    // one writer and needs no lock.
    struct DiscoveryState
    {
        // The read-out as discovery took it (see fpgaPicture).
        std::shared_ptr<const FpgaReadout> fpga;
        boost::container::flat_map<std::string, VpdProperties> vpdObjects;
        bool vpdMatchCompleted = false;
        // On a restart: waitForVpd has read the service and run discovery.
        bool vpdReadoutDone = false;
        // On a restart, the signals from the first one for vpdReadyPath on
        // that came before waitForVpd had read the service: handled after
        // it, in their order.
        std::vector<std::pair<std::string, hwtopod::InterfaceProperties>>
            signalsAfterReadout;
        std::string backplaneType = "NONE";
        nlohmann::json backplanesFound;
        nlohmann::json risersFound;
        nlohmann::json midplanesFound;
        std::map<std::string, bool> backplaneInstalled;
        // Risers the FPGA detected that no VPD has confirmed yet.
        std::map<std::uint32_t, std::string> fpgaMatchQueue;
        hwtopod::bitset64 riserSlotsProbed;
        hwtopod::bitset64 vpdRiserSlots;
        bool cachedVpdDone = false;
        // Set when the boards were walked without the FPGA's read-out: the
        // riser checks wait for it, with what they need.
        bool riserChecksWaitForFpga = false;
        // What a riser's check holds against the FPGA's picture, read from
        // its record when it was probed: its number, the slots linked, its
        // power connector's name (none when the record names none).
        struct RiserCheck
        {
            nlohmann::json record;
            std::string name;
            std::string vpdPath;
            unsigned number = 0;
            std::vector<std::uint64_t> slots;
            std::optional<std::string> connector;
        };
        std::vector<RiserCheck> waitingRisers;
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
    };
    DiscoveryState discovery;
    // VPD discovery's view of the FPGA read-out: the value handed over,
    // taken at the first use after the handover, which also starts
    // discovery's own queue of risers to confirm. Before the handover (the
    // wait for it is bounded) an empty picture.
    const FpgaReadout& fpgaPicture();

    // The service thread's own.
    struct ServiceThreadState
    {
        bool chassisCloseRemedied = false;
        bool devicePresencePublished = false;
    };
    ServiceThreadState service;

    // What this machine is; never changes.
    const MachineDefinition definition;
    std::uint64_t motherboardRevisionBase = 0;
    long upTimeSeconds = 0;
    // Written by the constructor before any thread starts.
    bool normalStart = true;
    boost::asio::io_context io;
    std::string serviceName;
    // Guarded by stateMutex: added to by the hardware thread (platform
    // information), the service thread (service objects, device presence)
    // and VPD discovery (boards), and looked up by all three.
    std::map<std::pair<std::string, std::string>,
             std::shared_ptr<hwtopod::dbus::Interface>>
        dbusInterfaces;
    std::shared_ptr<hwtopod::dbus::ObjectServer> objectServer;
    std::shared_ptr<hwtopod::dbus::Connection> connection;
    // Held so that destruction stops and joins them (stopThreads).
    std::jthread ioThread;
    std::jthread gpioThread;
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
    std::string gpioChipName;

  protected:
    // Runs probe on each cached VPD object in path order; an exception ends
    // the probing of that object alone, with its CRITICAL line.
    void forEachCachedObject(
        const std::function<void(const std::string&)>& probe);

    // The cached VPD object of path, when the rule documents of its probe
    // are loaded; else null, and the ERROR line notLoaded or
    // "<prober>: path <path> was not found".
    const VpdProperties* cachedVpd(
        const std::shared_ptr<nlohmann::json>& rules,
        const std::shared_ptr<nlohmann::json>& topology,
        const std::string& path, std::string_view notLoaded,
        std::string_view prober) const;

    // Stops the threads the object started and waits for them: the GPIO
    // monitor, VPD discovery, the io thread. Each derived class that the
    // threads call into runs it in its destructor, so no thread sees a
    // half-destroyed object; later calls find nothing to stop.
    void stopThreads();

    // Logs what the matcher said. A match that failed on the VPD object
    // throws, to be reported for that object; false when there is no match.
    static bool acceptMatch(const hwtopod::rules::BoardMatch& match);

    // The record of a matched board, its composition lines logged; called
    // once the board's interface is made. A record that could not be
    // composed throws here, with the JSON library's text.
    static const nlohmann::json& composedRecord(
        const hwtopod::rules::BoardMatch& match);

    void linkRiserSlots(const nlohmann::json& record) const;
    static void sendRiserPresence(const nlohmann::json& record);

    // The I2C link of a backplane record, or the warning that it lacks the
    // keys for one.
    void linkBackplane(const nlohmann::json& record) const;
    void linkMidplane(const nlohmann::json& record) const;

    // The end of every probe that accepts a board: the record joins its
    // found-hardware document, its keys become the interface's properties,
    // the interface goes on the bus, and the result file is written anew.
    void publishRecord(
        const std::shared_ptr<hwtopod::dbus::Interface>& interface,
        nlohmann::json record, nlohmann::json& document, const std::string& key,
        const std::string& file, std::string_view saveMessage);
    // Writes the result files while forEachCachedObject walks, so that
    // their syncs overlap the probes' waits on peers; null outside a walk,
    // when each file is written before publishRecord returns. Touched only
    // by the thread that walks.
    std::unique_ptr<hwtopod::rules::FoundHardwareWriter> resultWriter;

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
    std::shared_ptr<const FpgaReadout> handedOver;
    // Written by VPD discovery, read on the service thread.
    mutable std::mutex productNameMutex;
    std::string productName = "Vantarack";
};

} // namespace Platform
