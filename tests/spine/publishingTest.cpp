// What the daemon publishes, read back by a real client of a private bus.

#include "busClient.hpp"
#include "dbus/bus.hpp"
#include "journal.hpp"
#include "platforms/kelvane1u.hpp"
#include "privateBus.hpp"
#include "sandbox.hpp"

#include <boost/asio/post.hpp>

#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace
{
// A jumper line at a fixed level, or absent; it counts its reads.
struct FixedLine : LineReader
{
    explicit FixedLine(std::optional<int> level) : level(level) {}
    std::optional<int> readOnce(const std::string& lineName,
                                const std::string& consumer) override
    {
        reads.push_back(lineName + " " + consumer);
        return level;
    }
    std::optional<int> level;
    std::vector<std::string> reads;
};

constexpr auto service = "com.halvex.hwtopod";
constexpr auto psuFile =
    "/usr/share/vantarack-bmc-apps/hwtopod/bhs_2p_2psus.json";

class Publishing : public testing::Test
{
  protected:
    void SetUp() override
    {
        setenv("HWTOPOD_STATUS", "normal", 1);
    }
    void TearDown() override
    {
        platform.reset();
        unsetenv("HWTOPOD_STATUS");
    }

    // serviceInit and serviceRun of a fresh platform; returns their log.
    std::string startService(const Platform::MachineDefinition& machine =
                                 Platform::kelvane1uDefinition,
                             std::shared_ptr<LineReader> jumper = nullptr)
    {
        CaptureStderr();
        Platform::Seams seams{.root = hwtopod::Root(root.path())};
        if (jumper)
        {
            seams.jumper = std::move(jumper);
        }
        platform =
            std::make_unique<Platform::Kelvane1u>(std::move(seams), machine);
        platform->serviceInit();
        platform->serviceRun();
        return GetCapturedStderr();
    }

    test::PrivateBus bus;
    test::TempDir root;
    std::unique_ptr<Platform::Kelvane1u> platform;
};
} // namespace

TEST_F(Publishing, ServiceObjectsAndPsuFileWithOddNumbersAndABadElement)
{
    test::writeFile(root / psuFile, R"([
        {"Name": "PSU0", "Type": "PowerSupply", "BusOwner": true,
         "DeviceIdentifier": "CRPS", "BaseAddressCrps": 88.9, "FruId": 1,
         "Location": -1, "Ignored": "x"},
        {"Type": "NoName"},
        {"Name": "PSU1", "Type": "PowerSupply", "BaseAddressCff": -1.5,
         "BaseAddressCrps": 8.9e31, "Location": 2},
        {"Name": "PSU2", "Type": "PowerSupply", "FruId": 3, "Location": "x"},
        {"Name": "PSU3", "Type": "PowerSupply"}
    ])");
    auto log = startService();
    EXPECT_THAT(log, HasSubstr("[WARNING] GPIO LOW_SECURITY_JMP_Nnot found\n"));
    EXPECT_THAT(log, HasSubstr("PSU PSU1 key BaseAddressCff dropped: -1.5 is"
                               " no unsigned 64-bit number\n[ERROR] PSU PSU1 "
                               "key BaseAddressCrps dropped: 8.9e+31 is"));
    EXPECT_EQ(test::countInText(log, "[CRITICAL] Exception in initPsuConfigs : "
                                     "psuConfigFiles "),
              1U);

    // Numbers are numbers: a fraction is cut, a negative integer wraps.
    auto psu = test::getAllProperties(service,
                                      "/com/halvex/platform/hardware/psus/PSU0",
                                      "com.halvex.PowerSupply");
    EXPECT_EQ(psu.size(), 7U) << "unknown keys are not published";
    EXPECT_EQ(psu.at("Name").content.get<std::string>(), "PSU0");
    EXPECT_EQ(psu.at("BaseAddressCrps").content.get<std::uint64_t>(), 88U);
    EXPECT_EQ(psu.at("Location").content.get<std::uint64_t>(), UINT64_MAX);

    // Floats no unsigned number holds cost their key alone.
    auto psu1 = test::getAllProperties(
        service, "/com/halvex/platform/hardware/psus/PSU1",
        "com.halvex.PowerSupply");
    EXPECT_EQ(psu1.size(), 3U);
    EXPECT_EQ(psu1.at("Location").content.get<std::uint64_t>(), 2U);

    // A string where a number belongs stops the file there: the element is
    // added with the keys before that one, and never initialised.
    auto psu2 = platform->findDbusInterface(
        "/com/halvex/platform/hardware/psus/PSU2", "com.halvex.PowerSupply");
    ASSERT_TRUE(psu2);
    EXPECT_TRUE(psu2->hasProperty("FruId"));
    EXPECT_FALSE(psu2->hasProperty("Location"));
    EXPECT_FALSE(psu2->isInitialized());
    auto objects = test::getManagedObjects(service);
    EXPECT_FALSE(objects.contains("/com/halvex/platform/hardware/psus/PSU2"));
    EXPECT_FALSE(objects.contains("/com/halvex/platform/hardware/psus/PSU3"));

    // A second start of the service changes nothing.
    CaptureStderr();
    platform->serviceInit();
    platform->serviceRun();
    EXPECT_EQ(GetCapturedStderr(),
              "[INFO] Base::serviceInit had been executed\n");
}

TEST_F(Publishing, JsonValuesBecomeTypedProperties)
{
    startService();
    CaptureStderr();
    auto interface =
        platform->addDbusInterface("/chassis/test", "com.halvex.hwtopod.test");
    ASSERT_TRUE(interface);
    const auto values = nlohmann::json::parse(R"({
        "Text": "a", "Flag": true, "Negative": -3, "Count": 7, "Ratio": 1.5,
        "Names": ["a", "b"], "Negatives": [-1, -2], "Counts": [1, 2],
        "Mixed": [1, -1], "Flags": [true], "Ratios": [1.5], "Empty": [],
        "Nested": {"a": 1}, "Objects": [{"a": 1}], "Nothing": null,
        "Bad-Name": "x"
    })");
    for (const auto& [key, value] : values.items())
    {
        platform->addJsonProperty(interface, key, value);
    }
    interface->initialize();
    // Every key dropped: the interface still goes out, empty.
    auto empty =
        platform->addDbusInterface("/chassis/empty", "com.halvex.hwtopod.test");
    platform->addJsonProperty(empty, "Nested", values.at("Nested"));
    EXPECT_TRUE(empty->initialize());
    EXPECT_TRUE(test::getManagedObjects(service)
                    .at("/chassis/empty")
                    .contains("com.halvex.hwtopod.test"));
    auto log = GetCapturedStderr();
    EXPECT_THAT(log, HasSubstr("[WARNING] dbus format error[1,-1]\n"));
    EXPECT_THAT(log, HasSubstr("[WARNING] Unexpected json type in system "
                               "configuration Nothing: null\n"));

    auto properties = test::getAllProperties(service, "/chassis/test",
                                             "com.halvex.hwtopod.test");
    std::map<std::string, std::string> signatures;
    for (const auto& [name, value] : properties)
    {
        signatures[name] = value.signature;
    }
    EXPECT_EQ(signatures,
              (std::map<std::string, std::string>{
                  {"Count", "t"},
                  {"Counts", "at"},
                  {"Flag", "b"},
                  {"Names", "as"},
                  {"Negative", "x"},
                  {"Negatives", "ax"},
                  {"Ratio", "d"},
                  {"Text", "s"}}));
    EXPECT_EQ(
        properties.at("Negatives").content.get<std::vector<std::int64_t>>(),
        (std::vector<std::int64_t>{-1, -2}));

    // Same path and name again: refused; another path: a new interface.
    CaptureStderr();
    EXPECT_FALSE(
        platform->addDbusInterface("/chassis/test", "com.halvex.hwtopod.test"));
    EXPECT_TRUE(platform->addDbusInterface("/chassis/test2",
                                           "com.halvex.hwtopod.test"));
    EXPECT_THAT(GetCapturedStderr(),
                HasSubstr("[INFO] Interface com.halvex.hwtopod.test is already "
                          "added to path /chassis/test\n[INFO] Interface "
                          "com.halvex.hwtopod.test is added to path "
                          "/chassis/test2\n"));
}

TEST_F(Publishing, UpdatesAreSignalledAndPropertiesAreReadOnly)
{
    startService();
    CaptureStderr();
    platform->platformInfoInit();
    GetCapturedStderr();

    boost::asio::io_context clientIo;
    auto client = dbus::Connection::openSystemBus(clientIo);
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, bool> seen;
    const dbus::Match match(
        client,
        "type='signal',interface='org.freedesktop.DBus.Properties',"
        "member='PropertiesChanged',path='/com/halvex/platform/basecfg'",
        [&](const std::string&, const InterfaceProperties& interfaces) {
        std::lock_guard lock(mutex);
        for (const auto& [name, value] :
             interfaces.at("com.halvex.hwtopod.status.backplane"))
        {
            seen[name] = std::get<bool>(value);
        }
        changed.notify_all();
        });
    std::thread loop([&]() { client->runLoop(); });

    auto status = platform->findDbusInterface(
        "/com/halvex/platform/basecfg", "com.halvex.hwtopod.status.backplane");
    ASSERT_TRUE(status);
    EXPECT_TRUE(status->setProperty("BP_2_INSTALLED", true));
    EXPECT_FALSE(status->setProperty("BP_2_INSTALLED", true)) << "no change";
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(5), [&]() {
            return seen.contains("BP_2_INSTALLED");
        }));
        EXPECT_TRUE(seen["BP_2_INSTALLED"]);
    }
    clientIo.stop();
    loop.join();
}

TEST_F(Publishing, FailuresCostTheirObjectAndAnEndedLoopFailsItsCallers)
{
    // A string the bus refuses makes the software configuration's
    // publication fail; the objects after it are still published.
    auto machine = Platform::kelvane1uDefinition;
    machine.miniVersion = "01\xff";
    auto log = startService(machine);
    EXPECT_THAT(log,
                HasSubstr("[CRITICAL] Exception in publishSoftwareConfig: "));
    EXPECT_THAT(log, HasSubstr("[INFO] Service is set\n"));
    auto chassis = platform->findDbusInterface(
        "/com/halvex/platform/hardware/chassis",
        "xyz.openbmc_project.Inventory.Decorator.Dimension");
    ASSERT_TRUE(chassis);
    EXPECT_TRUE(chassis->isInitialized());

    // The loop ends by an exception while a call from another thread waits
    // for it: that call, and every later one, fails at once.
    std::promise<void> entered;
    std::promise<void> release;
    boost::asio::post(platform->io, [&]() {
        entered.set_value();
        release.get_future().wait();
        throw std::runtime_error("handler failed");
    });
    entered.get_future().wait();
    CaptureStderr();
    auto waiting = std::async(std::launch::async, [&]() {
        return chassis->isInitialized();
    });
    // Not a condition of the test: both orders must fail the call, this
    // pause only makes it likely that the call is queued behind the handler.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    release.set_value();
    platform->ioThread.join();
    EXPECT_THROW(waiting.get(), dbus::Error);
    EXPECT_THROW(chassis->setProperty("HeightU", std::int32_t{2}), dbus::Error);
    // A match that cannot be installed is logged; the caller goes on.
    platform->backplanesData = std::make_shared<nlohmann::json>();
    platform->trdBackplanes = platform->backplanesData;
    platform->matchVpdd();
    log = GetCapturedStderr();
    EXPECT_THAT(
        log, HasSubstr("[CRITICAL] Exception in io running: handler failed\n"));
    EXPECT_THAT(log, HasSubstr("[CRITICAL] Exception in matchVpdd: the D-Bus "
                               "loop has ended\n"));
}

// The jumper is read once through its line: fitted pulls the line low.
TEST_F(Publishing, SecurityJumperFittedOpenAndMissing)
{
    const test::JournalReader journal;
    for (const int level : {0, 1})
    {
        auto line = std::make_shared<FixedLine>(level);
        startService(Platform::kelvane1uDefinition, line);
        EXPECT_THAT(line->reads,
                    testing::ElementsAre("LOW_SECURITY_JMP_N securityJump"));
        EXPECT_EQ(test::getProperty(service,
                                    "/com/halvex/platform/hardware/config",
                                    "com.halvex.lowSecurityJmp", "Status")
                      .content.get<std::int32_t>(),
                  level);
        platform.reset();
    }
    EXPECT_THAT(
        test::summaries(journal.events(getpid(), 2)),
        testing::ElementsAre("TKRMBUN0026I <none>", "TKRMBUN2026I <none>"));

    auto log = startService(Platform::kelvane1uDefinition,
                            std::make_shared<FixedLine>(std::nullopt));
    EXPECT_THAT(log, HasSubstr("[WARNING] GPIO LOW_SECURITY_JMP_Nnot found\n"));
    EXPECT_FALSE(test::getManagedObjects(service).contains(
        "/com/halvex/platform/hardware/config"));
    EXPECT_EQ(journal.settledEvents(getpid()).size(), 2U);
}
