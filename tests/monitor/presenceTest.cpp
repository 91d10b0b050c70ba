// The chassis close event from a sandboxed hwmon directory.

#include "journal.hpp"
#include "platforms/kelvane1u.hpp"
#include "recordedSleeps.hpp"
#include "sandbox.hpp"

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace hwtopod::test
{
namespace
{

using ::testing::ElementsAre;

TEST(Presence, ChassisCloseSentOnceWhenTheStateReadsOne)
{
    TempDir root;
    RecordedSleeps sleeps;
    const auto hwmon =
        root / "sys/devices/platform/ahb/ahb:apb/1e6ef010.chassis/hwmon";
    JournalReader journal;
    {
        Platform::Kelvane1u platform{Platform::Seams{
            .sleep = sleeps.function(), .root = Root(root.path())}};
        platform.hardware.readout.fpgaDevices[11] = {"INTRUSSION_CONN", false};
        // A file whose name holds "hwmon" is passed over for the directory.
        writeFile(hwmon / "hwmon_label", "");
        writeFile(hwmon / "hwmon3" / "intrusion_raw", "1\n");

        // Before discovery, and without an intrusion connection, nothing is
        // read however often it is asked.
        platform.remedyChassisCloseEvent();
        platform.markHardwareDiscovered();
        platform.remedyChassisCloseEvent();
        EXPECT_FALSE(platform.service.chassisCloseRemedied);
        EXPECT_TRUE(sleeps.taken.empty());

        platform.hardware.readout.fpgaDevices[11].state = true;
        platform.markHardwareDiscovered();
        testing::internal::CaptureStderr();
        platform.remedyChassisCloseEvent();
        platform.remedyChassisCloseEvent();
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "[WARNING] debug remedyChassisCloseEvent sleep for 90s\n");
        EXPECT_TRUE(platform.service.chassisCloseRemedied);
        EXPECT_THAT(sleeps.taken, ElementsAre(90U));
    }
    const auto events = journal.events(getpid(), 1);
    EXPECT_THAT(summaries(events), ElementsAre("TKRMBSE2000I Vantarack"));
    EXPECT_EQ(events.at(0).at("MESSAGE"), hwtopod::message::chassisClosed);
    EXPECT_EQ(events.at(0).at("CODE_FUNC"), "remedyChassisCloseEvent");

    std::filesystem::remove_all(hwmon);
    {
        // No intrusion connection entry at all: the state file decides.
        Platform::Kelvane1u platform{Platform::Seams{
            .sleep = sleeps.function(), .root = Root(root.path())}};
        platform.markHardwareDiscovered();
        // Without the directory, or without its state file, later passes
        // look again.
        platform.remedyChassisCloseEvent();
        std::filesystem::create_directories(hwmon / "hwmon0");
        platform.remedyChassisCloseEvent();
        EXPECT_FALSE(platform.service.chassisCloseRemedied);

        writeFile(hwmon / "hwmon0" / "intrusion_raw", "0\n");
        platform.remedyChassisCloseEvent();
        EXPECT_TRUE(platform.service.chassisCloseRemedied);
        // Read once only: a later 1 changes nothing.
        writeFile(hwmon / "hwmon0" / "intrusion_raw", "1\n");
        platform.remedyChassisCloseEvent();
    }
    EXPECT_EQ(sleeps.taken.size(), 1U);
    EXPECT_EQ(journal.settledEvents(getpid()).size(), 1U);
}

} // namespace
} // namespace hwtopod::test
