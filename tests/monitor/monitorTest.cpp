// The fault line table, the GPIO monitor over a scripted controller, the
// monitor thread's start and the power fault scan of the register images.

#include "fpga/fpgaImages.hpp"
#include "journal.hpp"
#include "monitor/faultTable.hpp"
#include "monitor/gpioLines.hpp"
#include "platforms/kelvane1u.hpp"
#include "scriptedLines.hpp"

#include <unistd.h>

#include <common/sleep.hpp>

#include <cstring>
#include <mutex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace hwtopod::test
{
namespace
{

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::Not;

std::size_t count(const std::string& text, const std::string& part)
{
    std::size_t n = 0;
    for (auto at = text.find(part); at != std::string::npos;
         at = text.find(part, at + part.size()))
    {
        ++n;
    }
    return n;
}

std::vector<unsigned> monitoredRowNumbers()
{
    std::vector<unsigned> numbers;
    const auto& table = fpgaGpioTable();
    for (unsigned i = 0; i < table.size(); ++i)
    {
        if (table[i].monitored)
        {
            numbers.push_back(i);
        }
    }
    return numbers;
}

// Every line of the table on one controller, at its row number as offset.
std::map<std::string, GpioLineLocation> allLinesOn(const std::string& chip)
{
    std::map<std::string, GpioLineLocation> lines;
    const auto& table = fpgaGpioTable();
    for (unsigned i = 0; i < table.size(); ++i)
    {
        lines[table[i].lineName] = GpioLineLocation{chip, i};
    }
    return lines;
}

// Records the waits instead of sleeping; runs a hook after each.
class RecordedSleeps
{
  public:
    explicit RecordedSleeps(std::function<void(std::size_t)> after = {})
    {
        setSleepFunction([this, after](std::chrono::milliseconds duration) {
            std::size_t n = 0;
            {
                std::lock_guard lock(mutex);
                durations.push_back(duration);
                n = durations.size();
            }
            if (after)
            {
                after(n);
            }
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

// Puts a scripted controller in place of libgpiod for one test.
class MonitorTest : public ::testing::Test
{
  protected:
    MonitorTest()
    {
        auto owned = std::make_unique<ScriptedLines>();
        gpio = owned.get();
        gpio->lines = allLinesOn("gpiochip1");
        setFaultLineGpio(std::move(owned));
    }
    ~MonitorTest() override
    {
        setFaultLineGpio(nullptr);
    }
    MonitorTest(const MonitorTest&) = delete;
    MonitorTest& operator=(const MonitorTest&) = delete;
    MonitorTest(MonitorTest&&) = delete;
    MonitorTest& operator=(MonitorTest&&) = delete;

    ScriptedLines* gpio = nullptr;
};

GpioEdgeEvent edge(int type, const std::string& line)
{
    const auto& table = fpgaGpioTable();
    for (unsigned i = 0; i < table.size(); ++i)
    {
        if (line == table[i].lineName)
        {
            return GpioEdgeEvent{type, line, i};
        }
    }
    return GpioEdgeEvent{type, line, 999};
}

ScriptedLines::Batch batch(const std::vector<GpioEdgeEvent>& events)
{
    return {{events.front().lineOffset, events}};
}

TEST(FaultTable, RowsAsTheMachineHasThem)
{
    const auto& table = fpgaGpioTable();
    ASSERT_EQ(table.size(), 73U);

    std::vector<unsigned> unmonitored;
    for (unsigned i = 0; i < table.size(); ++i)
    {
        if (!table[i].monitored)
        {
            unmonitored.push_back(i);
        }
    }
    EXPECT_EQ(monitoredRowNumbers().size(), 55U);
    EXPECT_THAT(unmonitored, ElementsAre(17, 18, 21, 24, 37, 38, 39, 40, 44, 45,
                                         46, 47, 48, 49, 50, 51, 52, 53));

    // Row 0 is the only one on the local FPGA and the only one active low.
    for (unsigned i = 0; i < table.size(); ++i)
    {
        EXPECT_EQ(table[i].fpgaDevice == 0, i == 0) << i;
        EXPECT_EQ(table[i].activeLevel, i != 0) << i;
        EXPECT_EQ(std::strlen(table[i].deassertEventId) != 0, i >= 71) << i;
    }
    EXPECT_STREQ(table[0].lineName, "HPM_SCM_STBY_RDY");
    EXPECT_STREQ(table[0].eventId, "TKRMBPW0133N");
    EXPECT_EQ(table[0].index, noCpuIndex);
    EXPECT_EQ(table[0].block, 22U);
    EXPECT_EQ(table[0].offset, 10U);
    EXPECT_EQ(table[0].bit, 1U);

    // The same rail of two CPUs differs only by index and bit.
    EXPECT_STREQ(table[19].deviceName, "P12V_MEM");
    EXPECT_STREQ(table[20].deviceName, "P12V_MEM");
    EXPECT_EQ(table[19].index, 1U);
    EXPECT_EQ(table[20].index, 2U);
    EXPECT_EQ(table[20].bit, 3U);

    EXPECT_STREQ(table[35].lineName, "VR_FAULT_43_N");
    EXPECT_STREQ(table[35].deviceName, "OCP slot 1");
    EXPECT_STREQ(table[55].eventId, "TKRMBPW0132N");
    EXPECT_STREQ(table[55].deviceName, "GroupB");
    EXPECT_STREQ(table[70].lineName, "CONN1_BP_PG");
    EXPECT_EQ(table[70].block, 5U);
    EXPECT_EQ(table[70].offset, 2U);
    EXPECT_EQ(table[70].bit, 7U);
    EXPECT_STREQ(table[72].lineName, "CPU2_THERMTRIP");
    EXPECT_STREQ(table[72].deassertEventId, "TKRMBPU2001I");
    EXPECT_EQ(table[72].block, 14U);
    EXPECT_EQ(table[72].bit, 1U);
}

TEST_F(MonitorTest, ThreadWatchesTheMonitoredLinesOnceStarted)
{
    RecordedSleeps sleeps;
    Platform::Kelvane1u platform;
    testing::internal::CaptureStderr();
    platform.powerFaultMonitor();
    ASSERT_TRUE(platform.gpioThread);
    auto first = platform.gpioThread;
    platform.powerFaultMonitor();
    EXPECT_EQ(platform.gpioThread, first);
    // With no script the first wait fails, which ends the thread.
    platform.gpioThread->join();
    const std::string log = testing::internal::GetCapturedStderr();

    EXPECT_EQ(count(log, "Thread for gpioMonitor is forked"), 1U);
    EXPECT_THAT(log, HasSubstr("[INFO] Base::gpioMonitor()\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] Check FPGA GPIO device:55 pins\n"));
    EXPECT_THAT(
        log,
        HasSubstr(
            "[INFO] Setup VRs & powergoods in FPGA gpio device: gpiochip1\n"));
    EXPECT_THAT(
        log,
        HasSubstr(
            "[CRITICAL] Exception in gpioMonitor, fetch data: end of script\n"));
    EXPECT_EQ(platform.gpioChipName, "gpiochip1");
    EXPECT_THAT(gpio->openedChips, ElementsAre("gpiochip1"));
    ASSERT_EQ(gpio->selections.size(), 1U);
    EXPECT_EQ(gpio->selections[0], monitoredRowNumbers());
    EXPECT_THAT(gpio->consumers, ElementsAre("monitor"));
    EXPECT_TRUE(sleeps.taken().empty());
}

TEST_F(MonitorTest, LinesAreTakenFromTheLastControllerFound)
{
    // The standby line sits on another controller, one monitored line is
    // missing, one look-up fails, and the table's unmonitored rows are
    // handed in too.
    gpio->lines["HPM_SCM_STBY_RDY"].chipName = "gpiochip0";
    gpio->lines.erase("VR_FAULT_5_N");
    gpio->failingLookups = {"CONN9_BP_PG"};

    Platform::Kelvane1u platform;
    testing::internal::CaptureStderr();
    platform.gpioMonitor(fpgaGpioTable());
    const std::string log = testing::internal::GetCapturedStderr();

    EXPECT_THAT(log, HasSubstr("[INFO] Check FPGA GPIO device:73 pins\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] Line HPM_SCM_STBY_RDY is located in "
                               "different gpio controller: gpiochip0\n"));
    EXPECT_THAT(log, HasSubstr("[CRITICAL] Line VR_FAULT_5_N not found.\n"));
    EXPECT_THAT(log,
                HasSubstr("[CRITICAL] Error: lookup of CONN9_BP_PG failed\n"));
    EXPECT_EQ(platform.gpioChipName, "gpiochip1");

    std::vector<unsigned> expected;
    for (unsigned row : monitoredRowNumbers())
    {
        if (row != 0 && row != 5 && row != 56)
        {
            expected.push_back(row);
        }
    }
    ASSERT_EQ(gpio->selections.size(), 1U);
    EXPECT_EQ(gpio->selections[0], expected);
}

TEST_F(MonitorTest, DiscoveryRetriesUntilTheControllerAppears)
{
    // The controller shows up during the second wait: the third attempt
    // finds it.
    gpio->available = false;
    {
        RecordedSleeps sleeps([this](std::size_t n) {
            if (n == 2)
            {
                gpio->available = true;
            }
        });
        Platform::Kelvane1u platform;
        testing::internal::CaptureStderr();
        platform.gpioMonitor(fpgaGpioTable());
        const std::string log = testing::internal::GetCapturedStderr();

        EXPECT_THAT(sleeps.taken(), ElementsAre(std::chrono::seconds(5),
                                                std::chrono::seconds(5)));
        EXPECT_EQ(count(log, "[WARNING] FPGA GPIO device is not ready, "), 2U);
        EXPECT_THAT(log, HasSubstr("[WARNING] FPGA GPIO device is not ready, "
                                   "retry = 5\n"));
        EXPECT_THAT(log, HasSubstr("[WARNING] FPGA GPIO device is not ready, "
                                   "retry = 4\n"));
        EXPECT_EQ(count(log, "Check FPGA GPIO device:73 pins"), 3U);
        EXPECT_THAT(log, HasSubstr("Setup VRs & powergoods in FPGA gpio "
                                   "device: gpiochip1"));
        EXPECT_EQ(platform.gpioChipName, "gpiochip1");
    }

    // A controller that can't be opened, and then none at all: five
    // attempts of five seconds each, and the monitor gives up.
    gpio->openError = "no such controller";
    gpio->lines = allLinesOn("gpiochip1");
    {
        RecordedSleeps sleeps([this](std::size_t n) {
            if (n == 2)
            {
                gpio->available = false;
            }
        });
        Platform::Kelvane1u platform;
        testing::internal::CaptureStderr();
        platform.gpioMonitor(fpgaGpioTable());
        const std::string log = testing::internal::GetCapturedStderr();

        EXPECT_EQ(sleeps.taken(), std::vector<std::chrono::milliseconds>(
                                      5, std::chrono::seconds(5)));
        EXPECT_THAT(log,
                    HasSubstr("[CRITICAL] Exception in gpioMonitor, setup "
                              "controller: no such controller, retry 5\n"));
        EXPECT_THAT(log,
                    HasSubstr("[CRITICAL] Exception in gpioMonitor, setup "
                              "controller: no such controller, retry 4\n"));
        for (int retry = 3; retry >= 1; --retry)
        {
            EXPECT_THAT(log,
                        HasSubstr("FPGA GPIO device is not ready, retry = " +
                                  std::to_string(retry) + "\n"));
        }
        EXPECT_THAT(log, Not(HasSubstr("Setup VRs")));
        EXPECT_EQ(platform.gpioChipName, "gpiochip6"); // the default
        EXPECT_EQ(gpio->consumers.size(), 1U); // of the first monitor only
    }
}

TEST_F(MonitorTest, EdgesBecomeEventsByTheLinesActiveLevel)
{
    gpio->script = {
        batch({edge(gpioRisingEdge, "CPU1_THERMTRIP")}),
        batch({edge(gpioFallingEdge, "CPU1_THERMTRIP")}),
        {},
        // The standby line is active low: the rising edge sends nothing.
        batch({edge(gpioRisingEdge, "HPM_SCM_STBY_RDY")}),
        batch({edge(gpioFallingEdge, "HPM_SCM_STBY_RDY")}),
        // Two lines in one wait, the second with both edges in one read.
        {{19, {edge(gpioFallingEdge, "VR_FAULT_19_N")}},
         {72,
          {edge(gpioFallingEdge, "CPU2_THERMTRIP"),
           edge(gpioRisingEdge, "CPU2_THERMTRIP")}}},
        batch({edge(gpioRisingEdge, "VR_FAULT_19_N")}),
        // An unmonitored row and a line the table doesn't know.
        batch({edge(gpioRisingEdge, "VR_FAULT_17_N")}),
        {{300, {GpioEdgeEvent{gpioRisingEdge, "FAN_FAIL", 300}}}},
    };

    JournalReader journal;
    Platform::Kelvane1u platform;
    testing::internal::CaptureStderr();
    platform.gpioMonitor(fpgaGpioTable());
    const std::string log = testing::internal::GetCapturedStderr();

    auto events = journal.events(getpid(), 6);
    ASSERT_EQ(events.size(), 6U);
    EXPECT_THAT(ids(events), ElementsAre("EventRegistry.1.0.TKRMBPU0001N",
                                         "EventRegistry.1.0.TKRMBPU2001I",
                                         "EventRegistry.1.0.TKRMBPW0133N",
                                         "EventRegistry.1.0.TKRMBPU2001I",
                                         "EventRegistry.1.0.TKRMBPU0001N",
                                         "EventRegistry.1.0.TKRMBPW0129N"));
    std::vector<std::string> args;
    for (const auto& event : events)
    {
        ASSERT_TRUE(event.contains("REDFISH_MESSAGE_ARGS"));
        args.push_back(event.at("REDFISH_MESSAGE_ARGS"));
        EXPECT_EQ(event.at("PRIORITY"), "3");
    }
    EXPECT_THAT(args,
                ElementsAre("1::", "1::", "", "2::", "2::", "1::P12V_MEM"));
    EXPECT_EQ(journal.settledEvents(getpid()).size(), 6U);

    EXPECT_THAT(log, HasSubstr("[INFO] Change detected on GPIO line 71\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] CPU1_THERMTRIP (#71) get event type: "
                               "1\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] CPU1_THERMTRIP found in "
                               "fpga_gpio_table, eventType \n"));
    EXPECT_THAT(log, HasSubstr("[INFO] VR_FAULT_19_N found in "
                               "fpga_gpio_table, eventType P12V_MEM\n"));
    EXPECT_EQ(count(log, "[INFO]  Another edge come for CPU1_THERMTRIP\n"), 1U);
    EXPECT_EQ(count(log, "[INFO]  Another edge come for HPM_SCM_STBY_RDY\n"),
              1U);
    EXPECT_EQ(count(log, "[INFO]  Another edge come for VR_FAULT_19_N\n"), 1U);
    EXPECT_THAT(log,
                HasSubstr("[INFO] VR_FAULT_17_N found in fpga_gpio_table"));
    EXPECT_THAT(log,
                HasSubstr("[WARNING] FAN_FAIL not found in fpga_gpio_table\n"));
    EXPECT_THAT(log, HasSubstr("Exception in gpioMonitor, fetch data: end of "
                               "script"));
    EXPECT_EQ(gpio->waits, 9U);
}

// Images of the local FPGA and remote FPGA 0; all bits inactive: the
// standby bit set, every other bit clear.
void quietImages()
{
    auto& images = fpgaImages();
    images.clear();
    for (std::uint32_t id : {0U, 1U, 0x00011408U})
    {
        images[id].valid = true;
        images[id].regs.fill(0);
    }
    images[0].regs[22 * 16 + 10] = 0x02;
}

void setBit(std::uint32_t device, unsigned block, unsigned offset, unsigned bit)
{
    fpgaImages()[device].regs[block * 16 + offset] |=
        static_cast<std::uint8_t>(1U << bit);
}

TEST(PowerFaultDetect, ReportsActiveMonitoredBitsOfValidImages)
{
    Platform::Kelvane1u platform;
    {
        quietImages();
        JournalReader journal;
        testing::internal::CaptureStderr();
        platform.powerFaultDetect();
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    Not(HasSubstr("powerFaultDetect")));
        EXPECT_TRUE(journal.settledEvents(getpid()).empty());
    }
    {
        // Standby low, P12V_MEM of CPU 1 and the unmonitored VR_FAULT_17_N
        // high, and the thermal trip of CPU 2.
        quietImages();
        fpgaImages()[0].regs[22 * 16 + 10] = 0xFD;
        setBit(1, 4, 3, 2);
        setBit(1, 4, 3, 0);
        setBit(1, 14, 1, 1);
        JournalReader journal;
        testing::internal::CaptureStderr();
        platform.powerFaultDetect();
        const std::string log = testing::internal::GetCapturedStderr();
        auto events = journal.events(getpid(), 3);
        EXPECT_THAT(ids(events), ElementsAre("EventRegistry.1.0.TKRMBPW0133N",
                                             "EventRegistry.1.0.TKRMBPW0129N",
                                             "EventRegistry.1.0.TKRMBPU0001N"));
        ASSERT_EQ(events.size(), 3U);
        EXPECT_EQ(events[0].at("REDFISH_MESSAGE_ARGS"), "");
        EXPECT_EQ(events[1].at("REDFISH_MESSAGE_ARGS"), "1::P12V_MEM");
        EXPECT_EQ(events[2].at("REDFISH_MESSAGE_ARGS"), "2::");
        EXPECT_EQ(events[1].at("PRIORITY"), "3");
        EXPECT_THAT(log, HasSubstr("[WARNING] powerFaultDetect: bit "
                                   "HPM_SCM_STBY_RDY error\n"));
        EXPECT_THAT(log, HasSubstr("[WARNING] powerFaultDetect: bit "
                                   "VR_FAULT_19_N error\n"));
        EXPECT_THAT(log, Not(HasSubstr("VR_FAULT_17_N")));
        EXPECT_EQ(journal.settledEvents(getpid()).size(), 3U);
    }
    {
        // The local image wasn't read: its row is skipped, the remote rows
        // are still examined.
        quietImages();
        fpgaImages()[0].valid = false;
        fpgaImages()[0].regs.fill(0);
        setBit(1, 5, 2, 7);
        JournalReader journal;
        platform.powerFaultDetect();
        auto events = journal.events(getpid(), 1);
        EXPECT_THAT(ids(events), ElementsAre("EventRegistry.1.0.TKRMBPW0131N"));
        ASSERT_EQ(events.size(), 1U);
        EXPECT_EQ(events[0].at("REDFISH_MESSAGE_ARGS"), "BP_PWR1");
        EXPECT_EQ(journal.settledEvents(getpid()).size(), 1U);
    }
    {
        // No image entry at all for the local FPGA ends the scan at row 0.
        quietImages();
        fpgaImages().erase(0);
        setBit(1, 4, 3, 2);
        JournalReader journal;
        testing::internal::CaptureStderr();
        platform.powerFaultDetect();
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    HasSubstr("[CRITICAL] Exception in powerFaultDetect:"));
        EXPECT_TRUE(journal.settledEvents(getpid()).empty());
    }
    fpgaImages().clear();
}

} // namespace
} // namespace hwtopod::test
