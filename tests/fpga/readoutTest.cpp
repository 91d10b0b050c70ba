// FPGA wait, register dump, device table scan, riser read-out, presence
// analysis and fan types of the platform object, on register images in
// memory; events are read back from the journal.

#include "fpga/fpgaImages.hpp"
#include "journal.hpp"
#include "machineImages.hpp"
#include "memoryRegisters.hpp"
#include "platforms/kelvane1u.hpp"
#include "recordedSleeps.hpp"
#include "sandbox.hpp"

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using namespace std::string_literals;
using testing::HasSubstr;

namespace
{
class ReadOut : public testing::Test
{
  protected:
    ReadOut()
    {
        fpgaImages().clear();
        platform.initPcieSlotMap();
    }

    // The hardware thread's read-out steps; their log.
    std::string readOut()
    {
        testing::internal::CaptureStderr();
        platform.fpgaDump();
        platform.hwDeviceDiscovery();
        platform.readRiserTopology();
        platform.checkPresence();
        return testing::internal::GetCapturedStderr();
    }

    test::TempDir root;
    std::shared_ptr<MemoryRegisters> registers =
        std::make_shared<MemoryRegisters>();
    // Waits take no time; a limit stops an endless one.
    std::size_t sleepLimit = 100;
    test::RecordedSleeps sleeps{[this](std::size_t count) {
        if (count >= sleepLimit)
        {
            throw std::runtime_error("sleep limit");
        }
    }};
    Platform::Kelvane1u platform{{.registers = registers,
                                  .sleep = sleeps.function(),
                                  .root = Root(root.path())}};
};
} // namespace

TEST_F(ReadOut, WaitForFpgaTestsEachNodeFiveTimes)
{
    // Only the remote node: 25 seconds for each missing one, then done.
    test::writeFile(root / "dev/fpga-r0", "");
    testing::internal::CaptureStderr();
    platform.waitForFpga();
    auto log = testing::internal::GetCapturedStderr();
    const auto missing = [](const char* node) {
        std::string lines;
        for (int i = 0; i < 5; ++i)
        {
            lines += "[INFO] [INIT] CANNOT FIND THE FPGA DEV, PATH = "s + node +
                     "\n";
        }
        return lines;
    };
    EXPECT_EQ(log,
              missing("/dev/fpga-cdev") +
                  "[INFO] [INIT] FIND THE FPGA DEV, PATH = /dev/fpga-r0\n" +
                  missing("/dev/fpga-r0-adi"));
    EXPECT_EQ(sleeps.taken, std::vector<unsigned>(10, 5));

    // No node: 15 tests 5 seconds apart, 10 seconds, a new pass.
    std::filesystem::remove(root / "dev/fpga-r0");
    sleeps.taken.clear();
    sleepLimit = 20;
    testing::internal::CaptureStderr();
    EXPECT_THROW(platform.waitForFpga(), std::runtime_error);
    log = testing::internal::GetCapturedStderr();
    std::vector<unsigned> expected(15, 5);
    expected.push_back(10);
    expected.insert(expected.end(), 4, 5);
    EXPECT_EQ(sleeps.taken, expected);
    EXPECT_THAT(log, testing::Not(HasSubstr("[INIT] FIND")));
}

TEST_F(ReadOut, NamedBitsDeviceStatesAndFanTypes)
{
    std::uint8_t value = 7;
    EXPECT_THROW(readFpgaDeviceBit(1, 0, 0, 0, &value), std::out_of_range);
    EXPECT_THROW(platform.getFpgaFanInfo(), std::out_of_range);
    // Remote FPGA unreadable: each row's state is its inverted value.
    registers->spaces[0] = std::string(1024, '\xFF');
    auto log = readOut();
    EXPECT_THAT(log, HasSubstr("[WARNING] Error: Remote FPGA not ready\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] 1. hwDeviceDiscovery: device CPU_2 is "
                               "present\n[INFO] 3. hwDeviceDiscovery: device "
                               "OCP_0 is absent\n"));
    EXPECT_EQ(readFpgaDeviceBit(1, 28, 7, 3, &value), -1);
    EXPECT_EQ(value, 7);

    testing::internal::CaptureStderr();
    EXPECT_EQ(readFpgaDeviceBit(0, 64, 0, 0, &value), -1);
    EXPECT_EQ(readFpgaDeviceBit(0, 0, 16, 0, &value), -1);
    EXPECT_EQ(readFpgaDeviceBit(0, 0, 0, 8, &value), -1);
    EXPECT_EQ(readFpgaDeviceBit(2, 0, 0, 0, &value), -1);
    EXPECT_EQ(readFpgaDeviceBit(0, 63, 15, 7, &value), 0);
    EXPECT_EQ(value, 1);
    EXPECT_TRUE(platform.getFpgaDeviceState(9));
    EXPECT_FALSE(platform.getFpgaDeviceState(2));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] readFpgaDeviceBit: out of boundary\n"
              "[ERROR] readFpgaDeviceBit: out of boundary\n"
              "[ERROR] readFpgaDeviceBit: out of boundary\n"
              "[INFO] FRONT_PANEL is set\n"
              "[ERROR] Exception in getFpgaDeviceState: map::at\n");

    // Fan fields in offsets 12 and 11 of block 12; other bits do not count.
    auto& regs = fpgaImages().at(1).regs;
    regs[12 * 16 + 12] = 0xF0 | 0x0B;
    regs[12 * 16 + 11] = 0xC3 | 0x24;
    testing::internal::CaptureStderr();
    platform.getFpgaFanInfo();
    std::string fans = "[INFO] [platformHighvol] getFpgaFanInfo\n";
    for (const auto* fan :
         {"1 fantype 2", "2 fantype 2", "3 fantype 3", "4 fantype 3",
          "5 fantype 2", "6 fantype 2", "7 fantype 1", "8 fantype 1"})
    {
        fans += "[INFO] [platformHighvol] getFpgaFanInfo 1U fan "s + fan + "\n";
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), fans);
}

TEST_F(ReadOut, StatusOnlyRoadAfterDumpRetries)
{
    registers->spaces = test::kelvaneImages().spaces;
    registers->spaces.erase(test::MachineImages::adiId);
    registers->failing[0] = 1;
    test::JournalReader journal;
    const auto log = readOut();

    // One failure of the local FPGA, ten of the ADI space; a second after
    // each failure and after each device.
    EXPECT_EQ(sleeps.taken, std::vector<unsigned>(14, 1));
    EXPECT_EQ(test::countInText(log,
                                "[INFO] Failed to read FPGA: 0x00000000 error "
                                "-5\n[INFO] Dumpping FPGA registors,ID:"
                                "0x00000001\n"),
              1U);
    EXPECT_EQ(test::countInText(
                  log, "[INFO] Failed to read FPGA: 0x00011408 error -2\n"),
              10U);
    EXPECT_THAT(
        log,
        HasSubstr("[INFO] Dump FPGA riser topology map from Block 24 offset 01"
                  "\n[INFO] data:\n1: 0x13 0x00 0x00 0x46 0x5B 0x00 0x00 0x00 "
                  "0x00 0x00 0x00 0x00 0x00 0x00 0x00 0x00 \n2: 0x00 0xFF 0x00 "
                  "0x00 0x00 0x00 0x00 0x00 \n[INFO] Dump FPGA riser presence "
                  "from Block 25 offset 08\n[INFO] data:\n1: 0x1D 0x00 0x00 \n"
                  "[INFO] Riser presence " +
                  std::string(59, '0') + "11101\n"));
    EXPECT_TRUE(platform.hardware.readout.oldRisers.none());
    EXPECT_TRUE(platform.hardware.readout.pciePairing.none());
    // Position 2 is clear: riser 1 awaits VPD, but slot 2's entry has the
    // last word on RISER_1_INSTALLED.
    EXPECT_EQ(platform.hardware.readout.fpgaMatchQueue.at(1), "Slot_1_Riser");
    EXPECT_FALSE(platform.hardware.readout.fpgaDevices.at(18).state);
    // Riser 4's cable mismatch has no connector data: expected on "N/A".
    EXPECT_EQ(test::summaries(journal.events(getpid(), 8)),
              (std::vector<std::string>{
                  "TKRMBIO0032I Slot::1 Riser", "TKRMBIO0032I PCIe Card::1",
                  "TKRMBIO0032I Slot::3 Riser", "TKRMBIO0032I Slot::4 Riser",
                  "TKRMBIO0032I PCIe Card::4", "TKRMBIO0038G PCIe Slot 4::N/A",
                  "TKRMBIO0032I Slot::5 Riser", "TKRMBIO0032I OCP::1"}));
}

TEST_F(ReadOut, AdiRoadCableCageAndOcpJudgements)
{
    auto machine = test::kelvaneImages();
    machine.set(20, 1, 0x1E); // position 1 clear, 2 set
    // Riser 4: cage mismatch, cable A loose, B on the wrong connector.
    machine.topology(4, 3, 4, 0, 5, 0x44);
    machine.topology(5, 9, 0, 0, 0, 0x5A); // its one cable loose
    machine.set(12, 6, 0x09);              // the x8 front OCP has the OCP_0 bit
    registers->spaces = machine.spaces;
    test::JournalReader journal;
    const auto log = readOut();

    EXPECT_EQ(sleeps.taken, std::vector<unsigned>(3, 1));
    EXPECT_THAT(log, HasSubstr("[INFO] Old Riser " + std::string(40, '0') +
                               std::string(19, '1') + "00100\n"));
    EXPECT_THAT(log, HasSubstr("\n4: 0x03 0x04 0x50 0x44 \n5: 0x09 0x00 "
                               "0x00 0x5A \n6: 0x00 0x00 0x00 0x00 \n"));
    EXPECT_THAT(log, HasSubstr("\n24: 0x00 0x00 0x00 0x00 \n[INFO] Riser "
                               "presence:"));
    EXPECT_THAT(
        log, HasSubstr("[INFO] Riser 3:Prsnt:1,Old. PCIe:3, stat:0x30(RsrID:"
                       "0x03,CageID:0x00,CageM:0x00,CableM:0x00),A_Exp:0x00,"
                       "A_Act:0x00,B_Exp:0x00,B_Act:0x00\n[INFO] Don't need to "
                       "check cage id mismatch in riser 3 for PCIe slot 3\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] Riser 4 for PCIe slot 4 configuration "
                               "is mismatched, Cage ID error\n[INFO] Riser 4 "
                               "for PCIe slot 4 configuration is mismatched, "
                               "connectors error\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] Check OCP device 1\n[INFO] OCP_0 is set"
                               "\n[INFO] x8_FRONT_OCP is set\n[INFO] Check OCP "
                               "device 2\n"));
    EXPECT_EQ(platform.hardware.readout.riserTopology[2].status(), 0x33);
    EXPECT_EQ(platform.hardware.readout.pciePairing.to_ullong(), 0x08U);
    EXPECT_EQ(platform.hardware.readout.fpgaRiserSlots.to_ullong(), 0x1DU);
    EXPECT_EQ(platform.hardware.readout.cageMismatch.to_ullong(), 0x08U);
    EXPECT_EQ(platform.hardware.readout.cableMismatch.to_ullong(), 0x18U);
    EXPECT_EQ(platform.hardware.readout.fpgaMatchQueue.size(), 4U);
    // No riser 1 event: slot 1's entry already named riser 1.
    EXPECT_EQ(test::summaries(journal.events(getpid(), 9)),
              (std::vector<std::string>{
                  "TKRMBIO0032I PCIe Card::1", "TKRMBIO0032I Slot::3 Riser",
                  "TKRMBIO0032I Slot::4 Riser", "TKRMBIO0032I PCIe Card::4",
                  "TKRMBIO0040G CEMA::PCIe Slot 4::PCIE3_CEMA",
                  "TKRMBIO0041G CEMB::PCIe Slot 4::PCIE5_CEMA::PCIE4_CEMB",
                  "TKRMBIO0032I Slot::5 Riser",
                  "TKRMBIO0038G PCIe Slot 5::PCIE9", "TKRMBIO0032I OCP::3"}));
}
