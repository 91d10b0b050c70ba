// Device presence published on a private bus, and the chassis close event
// from a sandboxed hwmon directory.

#include "journal.hpp"
#include "platforms/kelvane1u.hpp"
#include "privateBus.hpp"
#include "sandbox.hpp"

#include <sdbus-c++/sdbus-c++.h>
#include <stdlib.h>
#include <unistd.h>

#include <common/sleep.hpp>

#include <filesystem>
#include <map>
#include <mutex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace hwtopod::test
{
namespace
{

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char* presencePath = "/com/halvex/platform/hardware/device";
constexpr const char* presenceInterface = "com.halvex.hwtopod.device.presence";
constexpr const char* chassisDir =
    "sys/devices/platform/ahb/ahb:apb/1e6ef010.chassis/hwmon";

std::map<std::string, bool> readPresence()
{
    auto connection = sdbus::createSystemBusConnection();
    auto proxy =
        sdbus::createProxy(*connection, "com.halvex.hwtopod", presencePath);
    std::map<std::string, sdbus::Variant> values;
    proxy->callMethod("GetAll")
        .onInterface("org.freedesktop.DBus.Properties")
        .withArguments(presenceInterface)
        .storeResultsTo(values);
    std::map<std::string, bool> states;
    for (const auto& [name, value] : values)
    {
        EXPECT_EQ(value.peekValueType(), "b") << name;
        states[name] = value.get<bool>();
    }
    return states;
}

// The device table as discovery leaves it: the FPGA's named bits, one
// riser and two slots.
std::map<std::uint32_t, DeviceState> discoveredDevices()
{
    return {
        {0, {"CPU_1", true}},
        {1, {"CPU_2", false}},
        {3, {"OCP_0", true}},
        {4, {"OCP_1", false}},
        {5, {"x8_FRONT_OCP", false}},
        {6, {"x16_FRONT_OCP", true}},
        {9, {"FRONT_PANEL", true}},
        {10, {"PONG", false}},
        {11, {"INTRUSSION_CONN", true}},
        {18, {"RISER_1_INSTALLED", true}},
        {41, {"SLOT_1_ADAPTER_PRSNT", false}},
        {43, {"SLOT_3_ADAPTER_PRSNT", true}},
        {87, {"FRONT_IO_CABLE", true}},
        {89, {"KELVANE open loop liquid leak", true}},
        {90, {"open loop liquid leak", false}},
    };
}

class SandboxRoot
{
  public:
    SandboxRoot()
    {
        setenv("HWTOPOD_ROOT", dir.path().c_str(), 1);
    }
    ~SandboxRoot()
    {
        unsetenv("HWTOPOD_ROOT");
    }
    SandboxRoot(const SandboxRoot&) = delete;
    SandboxRoot& operator=(const SandboxRoot&) = delete;
    SandboxRoot(SandboxRoot&&) = delete;
    SandboxRoot& operator=(SandboxRoot&&) = delete;

    std::filesystem::path operator/(const std::string& relative) const
    {
        return dir / relative;
    }

  private:
    TempDir dir;
};

TEST(DevicePresence, PublishedOnceAfterDiscovery)
{
    SandboxRoot root;
    PrivateBus bus;
    Platform::Kelvane1u platform;
    platform.serviceInit();
    platform.serviceRun();

    // Before discovery there is nothing to publish.
    platform.fpgaDevices = discoveredDevices();
    platform.setDevicePresence();
    EXPECT_FALSE(platform.devicePresencePublished);
    EXPECT_EQ(platform.findDbusInterface(presencePath, presenceInterface),
              nullptr);

    platform.hwDiscoveryDone = true;
    platform.setDevicePresence();
    EXPECT_TRUE(platform.devicePresencePublished);

    // The liquid leak rows have no member name, so no property.
    const std::map<std::string, bool> expected = {
        {"CPU_1", true},
        {"CPU_2", false},
        {"OCP_0", true},
        {"OCP_1", false},
        {"x8_FRONT_OCP", false},
        {"x16_FRONT_OCP", true},
        {"FRONT_PANEL", true},
        {"PONG", false},
        {"INTRUSSION_CONN", true},
        {"RISER_1_INSTALLED", true},
        {"SLOT_1_ADAPTER_PRSNT", false},
        {"SLOT_3_ADAPTER_PRSNT", true},
        {"FRONT_IO_CABLE", true},
    };
    EXPECT_EQ(readPresence(), expected);

    // The states of that moment stay: later passes publish nothing more.
    platform.fpgaDevices[0].state = false;
    testing::internal::CaptureStderr();
    platform.setDevicePresence();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(readPresence(), expected);
}

class RecordedSleeps
{
  public:
    RecordedSleeps()
    {
        setSleepFunction([this](std::chrono::milliseconds duration) {
            std::lock_guard lock(mutex);
            durations.push_back(duration);
        });
    }
    ~RecordedSleeps()
    {
        setSleepFunction({});
    }
    RecordedSleeps(const RecordedSleeps&) = delete;
    RecordedSleeps& operator=(const RecordedSleeps&) = delete;
    RecordedSleeps(RecordedSleeps&&) = delete;
    RecordedSleeps& operator=(RecordedSleeps&&) = delete;

    std::vector<std::chrono::milliseconds> taken()
    {
        std::lock_guard lock(mutex);
        return durations;
    }

  private:
    std::mutex mutex;
    std::vector<std::chrono::milliseconds> durations;
};

TEST(ChassisClose, SentOnceWhenTheIntrusionStateReadsOne)
{
    SandboxRoot root;
    RecordedSleeps sleeps;
    const auto hwmon = root / chassisDir;
    // A file whose name holds "hwmon" is passed over for the directory.
    writeFile(hwmon / "hwmon_label", "1");
    writeFile(hwmon / "hwmon3" / "intrusion_raw", "1\n");

    JournalReader journal;
    Platform::Kelvane1u platform;
    platform.fpgaDevices = discoveredDevices();
    platform.fpgaDevices[11].state = false;

    // Before discovery, and without an intrusion connection, nothing is
    // read however often it is asked.
    platform.remedyChassisCloseEvent();
    platform.hwDiscoveryDone = true;
    platform.remedyChassisCloseEvent();
    platform.remedyChassisCloseEvent();
    EXPECT_FALSE(platform.chassisCloseRemedied);
    EXPECT_TRUE(sleeps.taken().empty());

    platform.fpgaDevices[11].state = true;
    testing::internal::CaptureStderr();
    platform.remedyChassisCloseEvent();
    platform.remedyChassisCloseEvent();
    const std::string log = testing::internal::GetCapturedStderr();

    EXPECT_TRUE(platform.chassisCloseRemedied);
    EXPECT_THAT(sleeps.taken(), ElementsAre(std::chrono::seconds(90)));
    EXPECT_EQ(log, "[WARNING] debug remedyChassisCloseEvent sleep for 90s\n");
    auto events = journal.events(getpid(), 1);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].at("REDFISH_MESSAGE_ID"),
              "EventRegistry.1.0.TKRMBSE2000I");
    EXPECT_EQ(events[0].at("REDFISH_MESSAGE_ARGS"), "Vantarack");
    EXPECT_EQ(events[0].at("PRIORITY"), "4");
    EXPECT_EQ(events[0].at("MESSAGE"),
              "This message is for the use case when a Chassis has been "
              "closed.");
    EXPECT_EQ(journal.settledEvents(getpid()).size(), 1U);
}

TEST(ChassisClose, NothingSentForAClosedStateOrNoDirectory)
{
    SandboxRoot root;
    RecordedSleeps sleeps;
    const auto hwmon = root / chassisDir;

    JournalReader journal;
    Platform::Kelvane1u platform;
    // No intrusion connection entry at all: the state file decides.
    platform.hwDiscoveryDone = true;

    // Without the chassis directory the pass is tried again later.
    platform.remedyChassisCloseEvent();
    EXPECT_FALSE(platform.chassisCloseRemedied);
    // Nor with a directory whose hwmon entry has no state file.
    std::filesystem::create_directories(hwmon / "hwmon0");
    platform.remedyChassisCloseEvent();
    EXPECT_FALSE(platform.chassisCloseRemedied);

    writeFile(hwmon / "hwmon0" / "intrusion_raw", "0\n");
    platform.remedyChassisCloseEvent();
    EXPECT_TRUE(platform.chassisCloseRemedied);

    // Read once only: a later 1 changes nothing.
    writeFile(hwmon / "hwmon0" / "intrusion_raw", "1\n");
    platform.remedyChassisCloseEvent();
    EXPECT_TRUE(sleeps.taken().empty());
    EXPECT_TRUE(journal.settledEvents(getpid()).empty());
}

} // namespace
} // namespace hwtopod::test
