// The real daemon on a private bus, with register images in which a fault
// bit stands at start, a closed chassis, and a GPIO controller stand-in that
// gives the fault line monitor its lines and an edge.

#include "busClient.hpp"
#include "journal.hpp"
#include "monitor/faultTable.hpp"
#include "privateBus.hpp"
#include "process.hpp"
#include "sandbox.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace hwtopod::test
{
namespace
{

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* presencePath = "/com/halvex/platform/hardware/device";
constexpr const char* presenceInterface = "com.halvex.hwtopod.device.presence";

// The presence object once it is there; empty after 30 seconds.
std::map<std::string, sdbus::Variant> waitForPresence()
{
    for (int attempt = 0; attempt < 300; ++attempt)
    {
        try
        {
            return getAllProperties("com.halvex.hwtopod", presencePath,
                                    presenceInterface);
        }
        catch (const sdbus::Error&)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    return {};
}

TEST(MonitorDaemon, ReportsStandingFaultsEdgesAndDevicePresence)
{
    PrivateBus bus;
    TempDir root;
    TempDir images;
    TempDir gpio;
    for (const auto* node : {"dev/fpga-cdev", "dev/fpga-r0", "dev/fpga-r0-adi"})
    {
        writeFile(root / node, "");
    }
    writeFile(root / "sys/devices/platform/ahb/ahb:apb/1e6ef010.chassis/"
                     "hwmon/hwmon0/intrusion_raw",
              "0\n");

    std::string local(1024, '\0');
    std::string remote(1024, '\0');
    local[22 * 16 + 10] = 0x02;  // standby ready
    remote[4 * 16 + 3] = 0x04;   // VR_FAULT_19_N: P12V_MEM of CPU 1
    remote[12 * 16 + 6] = 0x41;  // OCP_0, INTRUSSION_CONN
    remote[28 * 16 + 8] = 0x08;  // CPU_2 absent; CPU_1 present
    remote[18 * 16 + 14] = 0x00; // front panel present
    writeFile(images / "local.img", local);
    writeFile(images / "remote0.img", remote);
    writeFile(images / "remote0-adi-20-8.img", std::string(1024, '\0'));

    // Every fault line on the controller stand-in, at its inactive level.
    std::string lines;
    for (const auto& row : fpgaGpioTable())
    {
        lines += std::string(row.lineName) +
                 (row.activeLevel ? " 0\n" : " 1\n");
    }
    writeFile(gpio / "lines", lines);
    ASSERT_EQ(mkfifo((gpio / "edges").c_str(), 0600), 0);

    std::string libraryPath = (buildRoot() / "sim/gpiod").string();
    if (const char* inherited = std::getenv("LD_LIBRARY_PATH"))
    {
        libraryPath += std::string(":") + inherited;
    }

    JournalReader journal;
    Process daemon(builtProgram("src/platforms/hwtopod"), {},
                   {{"HWTOPOD_ROOT", root.path().string()},
                    {"HWTOPOD_STATUS", "normal"},
                    {"HALVEX_FPGA_IMAGES", images.path().string()},
                    {"HWTOPOD_SIM_GPIO", gpio.path().string()},
                    {"LD_LIBRARY_PATH", libraryPath}});

    ASSERT_TRUE(daemon.waitForLog(
        "[INFO] Setup VRs & powergoods in FPGA gpio device: gpiochip0\n",
        std::chrono::seconds(20)))
        << daemon.standardError();
    {
        std::ofstream edges(gpio / "edges");
        edges << "CPU1_THERMTRIP rising\n" << std::flush;
    }
    ASSERT_TRUE(daemon.waitForLog(
        "[WARNING] powerFaultDetect: bit VR_FAULT_19_N error\n",
        std::chrono::seconds(20)))
        << daemon.standardError();
    ASSERT_TRUE(daemon.waitForLog("[INFO] CPU1_THERMTRIP found in "
                                  "fpga_gpio_table, eventType \n"))
        << daemon.standardError();

    // Published on the first pass after discovery, with the states of the
    // images; the liquid leak rows have no property.
    auto presence = waitForPresence();
    ASSERT_FALSE(presence.empty()) << daemon.standardError();
    const std::map<std::string, bool> named = {
        {"CPU_1", true},
        {"CPU_2", false},
        {"OCP_0", true},
        {"FRONT_PANEL", true},
        {"INTRUSSION_CONN", true},
        // Slot 6 is OCP 0's.
        {"SLOT_6_ADAPTER_PRSNT", true},
    };
    for (const auto& [name, state] : named)
    {
        ASSERT_TRUE(presence.contains(name)) << name;
        EXPECT_EQ(presence.at(name).get<bool>(), state) << name;
    }
    for (const auto& [name, value] : presence)
    {
        EXPECT_THAT(name, Not(HasSubstr(" ")));
        if (!named.contains(name))
        {
            // Nothing else is present in these images.
            EXPECT_FALSE(value.get<bool>()) << name;
        }
    }
    EXPECT_TRUE(presence.contains("RISER_1_INSTALLED"));

    // The standing fault and the trip once each; nothing else stood at its
    // active level, and the chassis reads closed.
    const auto events = summaries(journal.settledEvents(daemon.pid()));
    EXPECT_EQ(std::ranges::count(events, "TKRMBPW0129N 1::P12V_MEM"), 1);
    EXPECT_EQ(std::ranges::count(events, "TKRMBPU0001N 1::"), 1);
    std::string all;
    for (const auto& event : events)
    {
        all += event + "\n";
    }
    for (const char* id : {"TKRMBPW0131N", "TKRMBPW0132N", "TKRMBPW0133N",
                           "TKRMBPU2001I", "TKRMBSE2000I"})
    {
        EXPECT_THAT(all, Not(HasSubstr(id)));
    }
    EXPECT_EQ(daemon.countInLog("Thread for gpioMonitor is forked"), 1U);
    EXPECT_TRUE(daemon.running());
}

} // namespace
} // namespace hwtopod::test
