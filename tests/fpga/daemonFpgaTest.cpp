// The real daemon on a private bus, reading register images of a Kelvane1u
// through the library stand-in, through to its closing loop and the liquid
// cooling call.

#include "journal.hpp"
#include "machineImages.hpp"
#include "privateBus.hpp"
#include "process.hpp"
#include "sandbox.hpp"

#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using testing::HasSubstr;

namespace
{
constexpr auto block12Read =
    "remote0.img block 12 offset 0 length 16 result 0\n";
} // namespace

TEST(DaemonFpga, ReadsOutTheMachineAndAsksForLiquidCoolingOnce)
{
    test::PrivateBus bus;
    test::TempDir root;
    test::TempDir images;
    for (const auto* node : {"dev/fpga-cdev", "dev/fpga-r0", "dev/fpga-r0-adi"})
    {
        test::writeFile(root / node, "");
    }
    test::writeFile(root / "etc/os-release", "HALVEX_BUILDID=\"QDM413B\"\n");
    test::writeFile(
        root / "usr/share/vantarack-bmc-apps/hwtopod/bhs_2p_2psus.json",
        test::readFile(test::sourceRoot() / "data/bhs_2p_2psus.json"));
    test::kelvaneImages().write(images);
    test::writeFile(images / "access.log", "");

    test::JournalReader journal;
    test::Process daemon(test::builtProgram("src/platforms/hwtopod"), {},
                         {{"HWTOPOD_ROOT", root.path().string()},
                          {"HWTOPOD_STATUS", "normal"},
                          {"HALVEX_FPGA_IMAGES", images.path().string()}});

    // fpgaDump takes 3 seconds; the first pass of the closing loop finds no
    // cooling service.
    ASSERT_TRUE(daemon.waitForLog(
        "[CRITICAL] setLiquidCooling failed: sd_bus_call noreply: "
        "org.freedesktop.DBus.Error.ServiceUnknown: ",
        std::chrono::seconds(20)))
        << daemon.standardError();
    // Other threads log too, so lines are checked one by one; the hardware
    // thread's own order shows in the events below.
    const auto log = daemon.standardError();
    for (const std::string& line : std::vector<std::string>{
             "[INFO] [INIT] FIND THE FPGA DEV, PATH = /dev/fpga-r0-adi\n",
             "[INFO] FPGA service is up\n",
             "[INFO] Dumpping FPGA registors,ID:0x00000000\n",
             "[INFO] Dumpping FPGA registors,ID:0x00000001\n",
             "[INFO] Dumpping FPGA registors,ID:0x00011408\n",
             "[INFO] Riser ADI block is ready, read Riser status from block "
             "20/25\n",
             "[INFO] pcieCardPrsnt " + std::string(60, '0') + "1001\n",
             "[INFO] Riser 1:Prsnt:1,New. PCIe:1, stat:0x13(RsrID:0x01,CageID:"
             "0x00,CageM:0x01,CableM:0x01),A_Exp:0x01,A_Act:0x01,B_Exp:0x00,"
             "B_Act:0x00\n",
             "[INFO] Riser 4:Prsnt:1,New. PCIe:4, stat:0x46(RsrID:0x04,CageID:"
             "0x01,CageM:0x01,CableM:0x00),A_Exp:0x03,A_Act:0x03,B_Exp:0x04,"
             "B_Act:0x06\n",
             "[INFO] [kelvane1u] getSkuConfig skuRearConfig: 1\n",
             "[INFO] [kelvane1u] getSkuConfig skuFrontConfig: 2\n",
             "[INFO] [platformHighvol] getFpgaFanInfo 1U fan 8 fantype 1\n",
             "[INFO] applyPlatformCoolingSettings: type 0\n"})
    {
        EXPECT_THAT(log, HasSubstr(line));
    }
    EXPECT_THAT(log, testing::Not(HasSubstr("Failed to read FPGA")));
    EXPECT_THAT(log, testing::Not(HasSubstr("Exception in hwDeviceDiscovery")));

    // The service comes late; the next pass, 10 seconds on, reaches it.
    test::Process cooling(
        test::builtProgram("sim/liquid_cooling/liquid-cooling"), {});
    ASSERT_TRUE(
        daemon.waitForLog("[INFO] setLiquidCooling called successfully!\n",
                          std::chrono::seconds(15)))
        << daemon.standardError();

    // Install and cable events of the presence analysis, in its order; by
    // now the journal has had ten seconds to take them in.
    auto events = test::summaries(journal.events(daemon.pid(), 8));
    const std::set<std::string> presenceIds = {
        "TKRMBIO0032I", "TKRMBIO0038G", "TKRMBIO0039G", "TKRMBIO0040G",
        "TKRMBIO0041G"};
    std::erase_if(events, [&presenceIds](const std::string& event) {
        return !presenceIds.contains(event.substr(0, 12));
    });
    EXPECT_EQ(events,
              (std::vector<std::string>{
                  "TKRMBIO0032I Slot::1 Riser", "TKRMBIO0032I PCIe Card::1",
                  "TKRMBIO0032I Slot::3 Riser", "TKRMBIO0032I Slot::4 Riser",
                  "TKRMBIO0032I PCIe Card::4",
                  "TKRMBIO0041G CEMB::PCIe Slot 4::PCIE6_CEMB::PCIE4_CEMB",
                  "TKRMBIO0032I Slot::5 Riser", "TKRMBIO0032I OCP::1"}));

    // One more pass: block 12 is read again, the service is not asked again.
    const auto readsAtSuccess =
        test::countInText(test::readFile(images / "access.log"), block12Read);
    for (int i = 0;
         i < 150 && test::countInText(test::readFile(images / "access.log"),
                                      block12Read) == readsAtSuccess;
         ++i)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_GT(
        test::countInText(test::readFile(images / "access.log"), block12Read),
        readsAtSuccess);
    EXPECT_EQ(test::countInText(cooling.standardOutput(), "CreateSensors 0\n"),
              1U);
    EXPECT_EQ(daemon.countInLog("applyPlatformCoolingSettings: type 0"), 2U);
    EXPECT_EQ(daemon.countInLog("setLiquidCooling failed: "), 1U);
    EXPECT_TRUE(daemon.running());
}
