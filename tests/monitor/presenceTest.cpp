// Device presence published on a private bus, and the chassis close event
// from a sandboxed hwmon directory.

#include "busClient.hpp"
#include "fakes.hpp"
#include "journal.hpp"
#include "platforms/kelvane1u.hpp"
#include "privateBus.hpp"
#include "sandbox.hpp"

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace hwtopod::test
{
namespace
{

using ::testing::ElementsAre;

constexpr const char* presencePath = "/com/halvex/platform/hardware/device";
constexpr const char* presenceInterface = "com.halvex.hwtopod.device.presence";

std::map<std::string, bool> readPresence()
{
    std::map<std::string, bool> states;
    for (const auto& [name, value] : getAllProperties(
             "com.halvex.hwtopod", presencePath, presenceInterface))
    {
        EXPECT_EQ(value.peekValueType(), "b") << name;
        states[name] = value.get<bool>();
    }
    return states;
}

TEST(Presence, DevicePresencePublishedOnceAfterDiscovery)
{
    SandboxRoot root;
    PrivateBus bus;
    Platform::Kelvane1u platform;
    platform.serviceInit();
    platform.serviceRun();
    platform.fpgaDevices = {
        {0, {"CPU_1", true}},
        {1, {"CPU_2", false}},
        {11, {"INTRUSSION_CONN", true}},
        {18, {"RISER_1_INSTALLED", true}},
        {43, {"SLOT_3_ADAPTER_PRSNT", false}},
        {89, {"KELVANE open loop liquid leak", true}},
        {90, {"open loop liquid leak", false}},
    };

    // Before discovery there is nothing to publish.
    platform.setDevicePresence();
    EXPECT_EQ(platform.findDbusInterface(presencePath, presenceInterface),
              nullptr);

    platform.hwDiscoveryDone = true;
    platform.setDevicePresence();
    EXPECT_TRUE(platform.devicePresencePublished);
    // The liquid leak rows have no member name, so no property.
    const std::map<std::string, bool> expected = {
        {"CPU_1", true},
        {"CPU_2", false},
        {"INTRUSSION_CONN", true},
        {"RISER_1_INSTALLED", true},
        {"SLOT_3_ADAPTER_PRSNT", false},
    };
    EXPECT_EQ(readPresence(), expected);

    // The states of that moment stay.
    platform.fpgaDevices[0].state = false;
    platform.setDevicePresence();
    EXPECT_EQ(readPresence(), expected);
}

TEST(Presence, ChassisCloseSentOnceWhenTheStateReadsOne)
{
    SandboxRoot root;
    RecordedSleeps sleeps;
    const auto hwmon =
        root / "sys/devices/platform/ahb/ahb:apb/1e6ef010.chassis/hwmon";
    JournalReader journal;
    {
        Platform::Kelvane1u platform;
        platform.fpgaDevices[11] = {"INTRUSSION_CONN", false};
        // A file whose name holds "hwmon" is passed over for the directory.
        writeFile(hwmon / "hwmon_label", "");
        writeFile(hwmon / "hwmon3" / "intrusion_raw", "1\n");

        // Before discovery, and without an intrusion connection, nothing is
        // read however often it is asked.
        platform.remedyChassisCloseEvent();
        platform.hwDiscoveryDone = true;
        platform.remedyChassisCloseEvent();
        EXPECT_FALSE(platform.chassisCloseRemedied);
        EXPECT_TRUE(sleeps.taken.empty());

        platform.fpgaDevices[11].state = true;
        testing::internal::CaptureStderr();
        platform.remedyChassisCloseEvent();
        platform.remedyChassisCloseEvent();
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "[WARNING] debug remedyChassisCloseEvent sleep for 90s\n");
        EXPECT_TRUE(platform.chassisCloseRemedied);
        EXPECT_THAT(sleeps.taken, ElementsAre(90U));
    }
    const auto events = journal.events(getpid(), 1);
    EXPECT_THAT(summaries(events), ElementsAre("TKRMBSE2000I Vantarack"));
    EXPECT_EQ(events.at(0).at("MESSAGE"), hwtopod::message::chassisClosed);
    EXPECT_EQ(events.at(0).at("CODE_FUNC"), "remedyChassisCloseEvent");

    std::filesystem::remove_all(hwmon);
    {
        // No intrusion connection entry at all: the state file decides.
        Platform::Kelvane1u platform;
        platform.hwDiscoveryDone = true;
        // Without the directory, or without its state file, later passes
        // look again.
        platform.remedyChassisCloseEvent();
        std::filesystem::create_directories(hwmon / "hwmon0");
        platform.remedyChassisCloseEvent();
        EXPECT_FALSE(platform.chassisCloseRemedied);

        writeFile(hwmon / "hwmon0" / "intrusion_raw", "0\n");
        platform.remedyChassisCloseEvent();
        EXPECT_TRUE(platform.chassisCloseRemedied);
        // Read once only: a later 1 changes nothing.
        writeFile(hwmon / "hwmon0" / "intrusion_raw", "1\n");
        platform.remedyChassisCloseEvent();
    }
    EXPECT_EQ(sleeps.taken.size(), 1U);
    EXPECT_EQ(journal.settledEvents(getpid()).size(), 1U);
}

} // namespace
} // namespace hwtopod::test
