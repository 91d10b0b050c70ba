// The GPIO monitor over a scripted controller, the monitor thread's start
// and the power fault scan of the register images.

#include "fakes.hpp"
#include "fpga/fpgaImages.hpp"
#include "journal.hpp"
#include "monitor/faultTable.hpp"
#include "platforms/kelvane1u.hpp"
#include "sandbox.hpp"

#include <unistd.h>

#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace hwtopod::test
{
namespace
{

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

std::vector<unsigned> rowNumbers(bool monitored)
{
    std::vector<unsigned> numbers;
    for (unsigned i = 0; i < fpgaGpioTable().size(); ++i)
    {
        if (fpgaGpioTable()[i].monitored == monitored)
        {
            numbers.push_back(i);
        }
    }
    return numbers;
}

// An edge of a table line, whose offset is its row number.
GpioEdgeEvent edge(int type, const std::string& line)
{
    for (unsigned i = 0; i < fpgaGpioTable().size(); ++i)
    {
        if (line == fpgaGpioTable()[i].lineName)
        {
            return GpioEdgeEvent{type, line, i};
        }
    }
    return GpioEdgeEvent{type, line, 999};
}

// A scripted controller with every table line on "gpiochip1", in place of
// libgpiod, and waits recorded.
class MonitorTest : public ::testing::Test
{
  protected:
    MonitorTest()
    {
        for (unsigned i = 0; i < fpgaGpioTable().size(); ++i)
        {
            gpio->lines[fpgaGpioTable()[i].lineName] = {"gpiochip1", i};
        }
    }

    std::shared_ptr<ScriptedLines> gpio = std::make_shared<ScriptedLines>();
    RecordedSleeps sleeps;
    Platform::Kelvane1u platform{{.gpio = gpio, .sleep = sleeps.function()}};
};

TEST_F(MonitorTest, ThreadWatchesTheMonitoredLinesOfOneController)
{
    // The standby line sits on another controller, one line is missing.
    gpio->lines["HPM_SCM_STBY_RDY"].chipName = "gpiochip0";
    gpio->lines.erase("VR_FAULT_5_N");
    CaptureStderr();
    platform.powerFaultMonitor();
    ASSERT_TRUE(platform.gpioThread.joinable());
    platform.powerFaultMonitor();
    // Without a script the first wait fails, which ends the thread.
    platform.gpioThread.join();
    const std::string log = GetCapturedStderr();

    EXPECT_EQ(countInText(log, "Thread for gpioMonitor is forked"), 1U);
    EXPECT_THAT(log, HasSubstr("[INFO] Base::gpioMonitor()\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] Line HPM_SCM_STBY_RDY is located in "
                               "different gpio controller: gpiochip0\n"));
    EXPECT_THAT(log, HasSubstr("[CRITICAL] Line VR_FAULT_5_N not found.\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] Setup VRs & powergoods in FPGA gpio "
                               "device: gpiochip1\n"));
    EXPECT_THAT(log, HasSubstr("[CRITICAL] Exception in gpioMonitor, fetch "
                               "data: end of script\n"));
    EXPECT_EQ(platform.gpioChipName, "gpiochip1");
    auto expected = rowNumbers(true);
    std::erase_if(expected, [](unsigned row) { return row == 0 || row == 5; });
    EXPECT_THAT(gpio->selections, ElementsAre(expected));
    EXPECT_THAT(gpio->consumers, ElementsAre("monitor"));
}

TEST_F(MonitorTest, DestroyingThePlatformStopsAndJoinsTheMonitor)
{
    gpio->idle = true;
    {
        Platform::Kelvane1u watching{
            {.gpio = gpio, .sleep = sleeps.function()}};
        watching.powerFaultMonitor();
        while (gpio->waits == 0)
        {
            std::this_thread::yield();
        }
    }
    // One wait, with no time limit, that only the stop ended.
    EXPECT_EQ(gpio->waits, 1U);
}

TEST_F(MonitorTest, DiscoveryRetriesAndGivesUp)
{
    {
        // The controller shows up during the second wait.
        gpio->available = false;
        sleeps.after = [this](std::size_t n) { gpio->available = n == 2; };
        CaptureStderr();
        // Unmonitored rows handed in are not requested either.
        platform.gpioMonitor(fpgaGpioTable());
        const std::string log = GetCapturedStderr();
        EXPECT_THAT(sleeps.taken, ElementsAre(5U, 5U));
        EXPECT_THAT(log, HasSubstr("[WARNING] FPGA GPIO device is not ready, "
                                   "retry = 5\n"));
        EXPECT_THAT(log, HasSubstr("[WARNING] FPGA GPIO device is not ready, "
                                   "retry = 4\n"));
        EXPECT_THAT(gpio->selections, ElementsAre(rowNumbers(true)));
    }
    {
        // A controller that can't be opened, then none at all.
        gpio->openError = "no such controller";
        sleeps.taken.clear();
        sleeps.after = [this](std::size_t n) { gpio->available = n < 2; };
        CaptureStderr();
        platform.gpioMonitor(fpgaGpioTable());
        const std::string log = GetCapturedStderr();
        EXPECT_EQ(sleeps.taken, std::vector<unsigned>(5, 5));
        EXPECT_THAT(log,
                    HasSubstr("[CRITICAL] Exception in gpioMonitor, setup "
                              "controller: no such controller, retry 4\n"));
        EXPECT_THAT(log,
                    HasSubstr("FPGA GPIO device is not ready, retry = 1\n"));
        EXPECT_EQ(countInText(log, "Setup VRs"), 0U);
        EXPECT_EQ(gpio->consumers.size(), 1U); // of the first run only
    }
}

TEST_F(MonitorTest, EdgesBecomeEventsByTheLinesActiveLevel)
{
    auto one = [](const GpioEdgeEvent& event) {
        return ScriptedLines::Batch{{event.lineOffset, {event}}};
    };
    gpio->script = {
        // Active low: the rising edge is the other one.
        one(edge(gpioRisingEdge, "HPM_SCM_STBY_RDY")),
        one(edge(gpioRisingEdge, "CPU1_THERMTRIP")),
        one(edge(gpioFallingEdge, "CPU1_THERMTRIP")),
        {},
        one(edge(gpioFallingEdge, "HPM_SCM_STBY_RDY")),
        // Two lines in one wait, the second with both edges in one read.
        {{19, {edge(gpioFallingEdge, "VR_FAULT_19_N")}},
         {72,
          {edge(gpioFallingEdge, "CPU2_THERMTRIP"),
           edge(gpioRisingEdge, "CPU2_THERMTRIP")}}},
        one(edge(gpioRisingEdge, "VR_FAULT_19_N")),
        // An unmonitored row and a line the table doesn't know.
        one(edge(gpioRisingEdge, "VR_FAULT_17_N")),
        one(GpioEdgeEvent{gpioRisingEdge, "FAN_FAIL", 300}),
    };

    JournalReader journal;
    CaptureStderr();
    platform.gpioMonitor(fpgaGpioTable());
    const std::string log = GetCapturedStderr();

    auto events = journal.events(getpid(), 6);
    EXPECT_THAT(summaries(events),
                ElementsAre("TKRMBPU0001N 1::", "TKRMBPU2001I 1::",
                            "TKRMBPW0133N ", "TKRMBPU2001I 2::",
                            "TKRMBPU0001N 2::", "TKRMBPW0129N 1::P12V_MEM"));
    EXPECT_EQ(journal.settledEvents(getpid()).size(), 6U);

    EXPECT_THAT(log, HasSubstr("[INFO] Change detected on GPIO line 71\n"
                               "[INFO] CPU1_THERMTRIP (#71) get event type: 1\n"
                               "[INFO] CPU1_THERMTRIP found in "
                               "fpga_gpio_table, eventType \n"));
    for (const auto* line : {"CPU1_THERMTRIP", "HPM_SCM_STBY_RDY",
                             "VR_FAULT_19_N", "CPU2_THERMTRIP"})
    {
        EXPECT_EQ(countInText(log,
                              std::string("[INFO]  Another edge come for ") +
                                  line + "\n"),
                  1U)
            << line;
    }
    EXPECT_THAT(log, HasSubstr("VR_FAULT_19_N found in fpga_gpio_table, "
                               "eventType P12V_MEM\n"));
    EXPECT_THAT(log, Not(HasSubstr("Another edge come for VR_FAULT_17_N")));
    EXPECT_THAT(log,
                HasSubstr("[WARNING] FAN_FAIL not found in fpga_gpio_table\n"));
    EXPECT_EQ(gpio->waits, 9U);
}

// Valid images with every fault bit inactive: the standby bit high.
void quietImages()
{
    fpgaImages().clear();
    for (std::uint32_t id : {0U, 1U, 0x00011408U})
    {
        fpgaImages()[id].valid = true;
    }
    fpgaImages()[0].regs[22 * 16 + 10] = 0x02;
}

TEST(PowerFaultDetect, ReportsActiveMonitoredBitsOfValidImages)
{
    Platform::Kelvane1u platform{Platform::Seams{}};
    {
        // Standby low, P12V_MEM of CPU 1 and the unmonitored VR_FAULT_17_N
        // high.
        quietImages();
        fpgaImages()[0].regs[22 * 16 + 10] = 0xFD;
        fpgaImages()[1].regs[4 * 16 + 3] = 0x05;
        JournalReader journal;
        CaptureStderr();
        platform.powerFaultDetect();
        const std::string log = GetCapturedStderr();
        auto events = journal.events(getpid(), 2);
        EXPECT_THAT(summaries(events),
                    ElementsAre("TKRMBPW0133N ", "TKRMBPW0129N 1::P12V_MEM"));
        EXPECT_THAT(log, HasSubstr("[WARNING] powerFaultDetect: bit "
                                   "VR_FAULT_19_N error\n"));
        EXPECT_EQ(journal.settledEvents(getpid()).size(), 2U);
    }
    {
        // The local image wasn't read: its row is skipped, the remote rows
        // are still examined.
        quietImages();
        fpgaImages()[0] = FpgaImage{};
        fpgaImages()[1].regs[5 * 16 + 2] = 0x80;
        JournalReader journal;
        platform.powerFaultDetect();
        auto events = journal.events(getpid(), 1);
        EXPECT_THAT(summaries(events), ElementsAre("TKRMBPW0131N BP_PWR1"));
        EXPECT_EQ(journal.settledEvents(getpid()).size(), 1U);
    }
    {
        // No image entry at all for the local FPGA ends the scan at row 0.
        quietImages();
        fpgaImages().erase(0);
        fpgaImages()[1].regs[4 * 16 + 3] = 0x04;
        JournalReader journal;
        CaptureStderr();
        platform.powerFaultDetect();
        EXPECT_THAT(GetCapturedStderr(),
                    HasSubstr("[CRITICAL] Exception in powerFaultDetect:"));
        EXPECT_TRUE(journal.settledEvents(getpid()).empty());
    }
    fpgaImages().clear();
}

} // namespace
} // namespace hwtopod::test
