// FPGA wait, register dump, device table scan, riser read-out and presence
// analysis of the platform object, on register images served by the library
// stand-in; events are read back from the journal.

#include "fpga/readout.hpp"

#include "common/sleep.hpp"
#include "fpga/fpgaImages.hpp"
#include "journal.hpp"
#include "machineImages.hpp"
#include "platforms/kelvane1u.hpp"
#include "sandbox.hpp"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using namespace std::string_literals;
using testing::HasSubstr;
using testing::Not;

namespace
{
// Waits take no time; each one is recorded in seconds.
class FakeSleep
{
  public:
    explicit FakeSleep(std::size_t limit = 1000)
    {
        setSleepFunction([this, limit](std::chrono::milliseconds duration) {
            seconds.push_back(static_cast<unsigned>(duration.count() / 1000));
            if (seconds.size() >= limit)
            {
                throw std::runtime_error("sleep limit");
            }
        });
    }
    ~FakeSleep()
    {
        setSleepFunction({});
    }
    FakeSleep(const FakeSleep&) = delete;
    FakeSleep& operator=(const FakeSleep&) = delete;
    FakeSleep(FakeSleep&&) = delete;
    FakeSleep& operator=(FakeSleep&&) = delete;

    std::vector<unsigned> seconds;
};

// A sandbox root and an image directory for the library stand-in.
class ReadOut : public testing::Test
{
  protected:
    ReadOut()
    {
        setenv("HWTOPOD_ROOT", root.path().c_str(), 1);
        setenv("HALVEX_FPGA_IMAGES", images.path().c_str(), 1);
        fpgaImages().clear();
    }
    ~ReadOut() override
    {
        unsetenv("HWTOPOD_ROOT");
        unsetenv("HALVEX_FPGA_IMAGES");
        fpgaImages().clear();
    }

    // fpgaDump, the device table scan and the riser read-out; their log.
    std::string readOut(Platform::Kelvane1u& platform)
    {
        FakeSleep sleep;
        testing::internal::CaptureStderr();
        platform.initPcieSlotMap();
        platform.fpgaDump();
        platform.hwDeviceDiscovery();
        platform.readRiserTopology();
        dumpSleeps = sleep.seconds;
        return testing::internal::GetCapturedStderr();
    }

    std::string presence(Platform::Kelvane1u& platform)
    {
        testing::internal::CaptureStderr();
        platform.checkPresence();
        return testing::internal::GetCapturedStderr();
    }

    test::TempDir root;
    test::TempDir images;
    std::vector<unsigned> dumpSleeps;
};

std::string args(const test::JournalRecord& record)
{
    auto found = record.find("REDFISH_MESSAGE_ARGS");
    return found == record.end() ? "<none>" : found->second;
}

// "ID args" of each record, for comparing a whole sequence at once.
std::vector<std::string> summary(
    const std::vector<test::JournalRecord>& records)
{
    std::vector<std::string> result;
    for (const auto& record : records)
    {
        result.push_back(
            record.at("REDFISH_MESSAGE_ID").substr(18) + " " + args(record));
    }
    return result;
}
} // namespace

TEST(ReadOutHelpers, BitsetsHexDumpsAndConnectorNames)
{
    const std::string bytes = "\x01\x80\x00\x00\x00\x00\x00\xF0\xFF"s;
    const auto bits = bitsetFromBytes(bytes.data(), bytes.size());
    EXPECT_EQ(bits.to_ullong(), 0xF000000000008001ULL);
    EXPECT_EQ(bitsetFromBytes(bytes.data(), 2).to_ullong(), 0x8001ULL);
    EXPECT_EQ(bitsetString(bits), "1111000000000000000000000000000000000000"
                                  "000000001000000000000001");

    const std::string seven = "\x00\x0A\xFF\x10\x7B\x01\x02"s;
    EXPECT_EQ(hexDump(seven.data(), seven.size(), 3),
              "data:\n1: 0x00 0x0A 0xFF \n2: 0x10 0x7B 0x01 \n3: 0x02 ");
    EXPECT_EQ(hexDump(seven.data(), 3, 16), "data:\n1: 0x00 0x0A 0xFF ");
    EXPECT_EQ(hexDump(seven.data(), 0, 16), "data:");

    EXPECT_EQ(slotName(1), "PCIE1_CEMA");
    EXPECT_EQ(slotName(4), "PCIE4_CEMB");
    EXPECT_EQ(slotName(7), "PCIE7_CEMA");
    EXPECT_EQ(slotName(8), "PCIE8_CEMB");
    EXPECT_EQ(slotName(9), "PCIE9");
    EXPECT_EQ(slotName(15), "PCIE15");
    EXPECT_EQ(slotName(0), "N/A");
    EXPECT_EQ(slotName(16), "N/A");
}

TEST_F(ReadOut, WaitForFpgaTestsEachNodeFiveTimes)
{
    Platform::Kelvane1u platform;
    {
        // All three nodes: no wait at all.
        for (const auto* node :
             {"dev/fpga-cdev", "dev/fpga-r0", "dev/fpga-r0-adi"})
        {
            test::writeFile(root / node, "");
        }
        FakeSleep sleep;
        testing::internal::CaptureStderr();
        platform.waitForFpga();
        const auto log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(log,
                  "[INFO] [INIT] FIND THE FPGA DEV, PATH = /dev/fpga-cdev\n"
                  "[INFO] [INIT] FIND THE FPGA DEV, PATH = /dev/fpga-r0\n"
                  "[INFO] [INIT] FIND THE FPGA DEV, PATH = "
                  "/dev/fpga-r0-adi\n");
        EXPECT_TRUE(sleep.seconds.empty());
    }
    {
        // Only the remote node: 25 seconds for each missing one, then done.
        std::filesystem::remove(root / "dev/fpga-cdev");
        std::filesystem::remove(root / "dev/fpga-r0-adi");
        FakeSleep sleep;
        testing::internal::CaptureStderr();
        platform.waitForFpga();
        const auto log = testing::internal::GetCapturedStderr();
        const std::string missingLocal =
            "[INFO] [INIT] CANNOT FIND THE FPGA DEV, PATH = /dev/fpga-cdev\n";
        const std::string missingAdi =
            "[INFO] [INIT] CANNOT FIND THE FPGA DEV, PATH = /dev/fpga-r0-adi\n";
        std::string expected;
        for (int i = 0; i < 5; ++i)
        {
            expected += missingLocal;
        }
        expected += "[INFO] [INIT] FIND THE FPGA DEV, PATH = /dev/fpga-r0\n";
        for (int i = 0; i < 5; ++i)
        {
            expected += missingAdi;
        }
        EXPECT_EQ(log, expected);
        EXPECT_EQ(sleep.seconds, std::vector<unsigned>(10, 5));
    }
    {
        // No node: 15 tests of 5 seconds, 10 seconds, and a new pass.
        std::filesystem::remove(root / "dev/fpga-r0");
        FakeSleep sleep(20);
        testing::internal::CaptureStderr();
        EXPECT_THROW(platform.waitForFpga(), std::runtime_error);
        const auto log = testing::internal::GetCapturedStderr();
        std::vector<unsigned> expected(15, 5);
        expected.push_back(10);
        expected.insert(expected.end(), 4, 5);
        EXPECT_EQ(sleep.seconds, expected);
        EXPECT_THAT(log, Not(HasSubstr("[INIT] FIND")));
    }
}

TEST_F(ReadOut, NamedBitsAndDeviceStates)
{
    Platform::Kelvane1u platform;
    std::uint8_t value = 7;
    // Before any dump there is no image entry at all.
    EXPECT_THROW(readFpgaDeviceBit(1, 0, 0, 0, &value), std::out_of_range);

    // Remote FPGA unreadable: every row keeps its inverted value.
    auto machine = test::kelvaneImages();
    test::writeFile(images / "local.img", machine.local);
    auto log = readOut(platform);
    EXPECT_THAT(log, HasSubstr("[WARNING] Error: Remote FPGA not ready\n"));
    EXPECT_THAT(log, Not(HasSubstr("pcieCardPrsnt")));
    EXPECT_THAT(log, HasSubstr("[INFO] 0. hwDeviceDiscovery: device CPU_1 is "
                               "present\n[INFO] 1. hwDeviceDiscovery: device "
                               "CPU_2 is present\n[INFO] 3. hwDeviceDiscovery: "
                               "device OCP_0 is absent\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] 9. hwDeviceDiscovery: device "
                               "FRONT_PANEL is present\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] 90. hwDeviceDiscovery: device open "
                               "loop liquid leak is absent\n"));
    EXPECT_EQ(platform.fpgaDevices.size(), 12U);
    EXPECT_EQ(readFpgaDeviceBit(1, 28, 7, 3, &value), -1);
    EXPECT_EQ(value, 7);
    ASSERT_NE(platform.fpgaBlock1, nullptr);
    EXPECT_EQ(platform.fpgaBlock1[12 * 16 + 6], 0);
    // The local image was read.
    EXPECT_EQ(readFpgaDeviceBit(0, 22, 10, 1, &value), 0);
    EXPECT_EQ(value, 1);

    // Bounds, an unknown device.
    testing::internal::CaptureStderr();
    EXPECT_EQ(readFpgaDeviceBit(0, 64, 0, 0, &value), -1);
    EXPECT_EQ(readFpgaDeviceBit(0, 0, 16, 0, &value), -1);
    EXPECT_EQ(readFpgaDeviceBit(0, 0, 0, 8, &value), -1);
    EXPECT_EQ(readFpgaDeviceBit(2, 0, 0, 0, &value), -1);
    EXPECT_EQ(readFpgaDeviceBit(0, 63, 15, 7, &value), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] readFpgaDeviceBit: out of boundary\n"
              "[ERROR] readFpgaDeviceBit: out of boundary\n"
              "[ERROR] readFpgaDeviceBit: out of boundary\n");

    // Stored states, not registers; an unknown key is no exception.
    testing::internal::CaptureStderr();
    EXPECT_TRUE(platform.getFpgaDeviceState(0));
    EXPECT_FALSE(platform.getFpgaDeviceState(3));
    EXPECT_FALSE(platform.getFpgaDeviceState(2));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[INFO] CPU_1 is set\n[INFO] OCP_0 is unset\n"
              "[ERROR] Exception in getFpgaDeviceState: map::at\n");

    // Now with the remote image: CPU_2's bit is 1, so it is absent.
    fpgaImages().clear();
    Platform::Kelvane1u second;
    machine.write(images);
    log = readOut(second);
    EXPECT_THAT(log, HasSubstr("[INFO] 0. hwDeviceDiscovery: device CPU_1 is "
                               "present\n[INFO] 1. hwDeviceDiscovery: device "
                               "CPU_2 is absent\n[INFO] 3. hwDeviceDiscovery: "
                               "device OCP_0 is present\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] 10. hwDeviceDiscovery: device PONG is "
                               "present\n[INFO] 11. hwDeviceDiscovery: device "
                               "INTRUSSION_CONN is present\n"));
    EXPECT_EQ(readFpgaDeviceBit(1, 12, 6, 0, &value), 0);
    EXPECT_EQ(value, 1);
}

TEST_F(ReadOut, DumpRetriesAndTheStatusOnlyRoad)
{
    auto machine = test::kelvaneImages();
    machine.write(images, false);
    test::writeFile(images / "local.img.fail", "1");
    test::JournalReader journal;
    Platform::Kelvane1u platform;
    const auto log = readOut(platform);

    // The local read works at the second attempt, the ADI space never; one
    // second after each failure and after each device.
    EXPECT_THAT(log,
                HasSubstr("[INFO] Try to dump fpga\n"
                          "[INFO] Dumpping FPGA registors,ID:0x00000000\n"
                          "[INFO] Failed to read FPGA: 0x00000000 error -5\n"
                          "[INFO] Dumpping FPGA registors,ID:0x00000001\n"
                          "[INFO] Dumpping FPGA registors,ID:0x00011408\n"));
    std::string adiFailures;
    for (int i = 0; i < 10; ++i)
    {
        adiFailures += "[INFO] Failed to read FPGA: 0x00011408 error -2\n";
    }
    EXPECT_THAT(log, HasSubstr(adiFailures));
    EXPECT_EQ(dumpSleeps, std::vector<unsigned>(14, 1));
    EXPECT_TRUE(fpgaImages().at(0).valid);
    EXPECT_TRUE(fpgaImages().at(1).valid);
    EXPECT_FALSE(fpgaImages().at(0x00011408).valid);
    EXPECT_EQ(platform.fpgaBlock0, fpgaImages().at(0).regs.data());
    EXPECT_EQ(platform.fpgaBlock1, fpgaImages().at(1).regs.data());

    // Status bytes from blocks 24 and 25, presence from block 25.
    EXPECT_THAT(
        log,
        HasSubstr(
            "[INFO] Dump FPGA riser presence from Block 25 offset 0C to offset "
            "0E\n[INFO] data:\n1: 0x09 0x00 0x00 \n[INFO] pcieCardPrsnt "
            "0000000000000000000000000000000000000000000000000000000000001001\n"
            "[WARNING] Unable to get Riser ADI block, read Riser status from "
            "block 24/25\n[INFO] Dump FPGA riser topology map from Block 24 "
            "offset 01\n[INFO] data:\n1: 0x13 0x00 0x00 0x46 0x5B 0x00 0x00 "
            "0x00 0x00 0x00 0x00 0x00 0x00 0x00 0x00 0x00 \n2: 0x00 0xFF 0x00 "
            "0x00 0x00 0x00 0x00 0x00 \n[INFO] Dump FPGA riser presence from "
            "Block 25 offset 08\n[INFO] data:\n1: 0x1D 0x00 0x00 \n[INFO] "
            "Riser presence "
            "0000000000000000000000000000000000000000000000000000000000011101"
            "\n"));
    EXPECT_EQ(platform.riserTopology[3].bytes,
              (std::array<std::uint8_t, 4>{0, 0, 0, 0x46}));
    EXPECT_EQ(platform.riserTopology[17].status(), 0xFF);
    EXPECT_TRUE(platform.oldRisers.none());
    EXPECT_TRUE(platform.pciePairing.none());

    const auto analysis = presence(platform);
    // Position 2 is clear: riser 1 waits for VPD but counts as not
    // installed, the slot 2 entry having the last word.
    EXPECT_THAT(analysis,
                HasSubstr("[INFO] Riser 1:Prsnt:0,New. PCIe:2, stat:0x00"));
    EXPECT_FALSE(platform.fpgaDevices.at(18).state);
    EXPECT_EQ(platform.fpgaMatchQueue.at(1), "Slot_1_Riser");
    // Riser 4 reports a cable mismatch with no connector data: the cable is
    // expected on connector 0, which has no name.
    EXPECT_THAT(analysis, HasSubstr("[INFO] Riser 4 for PCIe slot 4 "
                                    "configuration is mismatched, connectors "
                                    "error\n"));
    EXPECT_THAT(analysis, HasSubstr("[INFO] sendRiserCableEvent  deviceName "
                                    "PCIe Slot 4 rightLocation N/A "
                                    "wrongLocation  cableName \n"));
    const auto events = journal.events(getpid(), 8);
    EXPECT_EQ(summary(events),
              (std::vector<std::string>{
                  "TKRMBIO0032I Slot::1 Riser", "TKRMBIO0032I PCIe Card::1",
                  "TKRMBIO0032I Slot::3 Riser", "TKRMBIO0032I Slot::4 Riser",
                  "TKRMBIO0032I PCIe Card::4", "TKRMBIO0038G PCIe Slot 4::N/A",
                  "TKRMBIO0032I Slot::5 Riser", "TKRMBIO0032I OCP::1"}));
}

TEST_F(ReadOut, AdiRoadAndPresenceOfARealisticMachine)
{
    test::kelvaneImages().write(images);
    test::JournalReader journal;
    Platform::Kelvane1u platform;
    const auto log = readOut(platform);
    EXPECT_EQ(dumpSleeps, std::vector<unsigned>(3, 1));
    EXPECT_THAT(log, Not(HasSubstr("Failed to read FPGA")));

    std::string adiDump = "[INFO] data:";
    const std::array<const char*, 5> rows = {
        "0x01 0x00 0x01 0x13 ", "0x02 0x00 0x02 0x13 ", "0x00 0x00 0x00 0x30 ",
        "0x03 0x04 0x63 0x46 ", "0x09 0x00 0x09 0x5B "};
    for (unsigned row = 1; row <= 24; ++row)
    {
        adiDump +=
            "\n" + std::to_string(row) + ": " +
            (row <= rows.size() ? rows[row - 1] : "0x00 0x00 0x00 0x00 ");
    }
    adiDump += "\n";
    EXPECT_THAT(
        log,
        HasSubstr(
            "[INFO] Riser ADI block is ready, read Riser status from block "
            "20/25\n[INFO] Dump FPGA riser presence from Block 20 offset 01 to "
            "offset 03\n[INFO] data:\n1: 0x1F 0x00 0x00 \n[INFO] Dump FPGA "
            "PCIe pairing from Block 20 offset 04 to offset 07\n[INFO] "
            "data:\n1: 0x08 0x00 0x00 0x00 \n[INFO] Old Riser "
            "0000000000000000000000000000000000000000111111111111111111100100\n"
            "[INFO] Dump FPGA riser topology map from Block 20 offset 08 "
            "ADI\n" +
            adiDump));
    // Block 20, offset 8 is not part of the pairing bits.
    EXPECT_EQ(platform.pciePairing.to_ullong(), 0x08ULL);
    EXPECT_EQ(platform.riserPresence.to_ullong(), 0x1FULL);

    const auto analysis = presence(platform);
    EXPECT_THAT(
        analysis,
        HasSubstr(
            "[INFO] Riser presence:"
            "0000000000000000000000000000000000000000000000000000000000011111\n"
            "[INFO] PCIe card presence:"
            "0000000000000000000000000000000000000000000000000000000000001001\n"
            "[INFO] Riser 1:Prsnt:1,New. PCIe:1, stat:0x13(RsrID:0x01,CageID:"
            "0x00,CageM:0x01,CableM:0x01),A_Exp:0x01,A_Act:0x01,B_Exp:0x00,"
            "B_Act:0x00\n[INFO] Don't need to check cage id mismatch in riser 1 "
            "for PCIe slot 1\n[INFO] Don't need to check signal cable mismatch "
            "in riser 1 for PCIe slot 1\n[INFO] Pcie card in slot 1 is "
            "installed\n"));
    // Riser 3's mismatches are hidden: the map asks for no check there.
    EXPECT_THAT(analysis,
                HasSubstr("[INFO] Riser 3:Prsnt:1,Old. PCIe:3, "
                          "stat:0x30(RsrID:0x03,CageID:0x00,CageM:0x00,CableM:"
                          "0x00),A_Exp:0x00,A_Act:0x00,B_Exp:0x00,B_Act:"
                          "0x00\n"));
    EXPECT_EQ(platform.riserTopology[2].status(), 0x33);
    EXPECT_THAT(analysis, Not(HasSubstr("Riser 3 for PCIe slot 3")));
    EXPECT_THAT(
        analysis,
        HasSubstr("[INFO] Riser 4:Prsnt:1,New. PCIe:4, stat:0x46(RsrID:0x04,"
                  "CageID:0x01,CageM:0x01,CableM:0x00),A_Exp:0x03,A_Act:0x03,"
                  "B_Exp:0x04,B_Act:0x06\n[INFO] Riser 4 for PCIe slot 4 "
                  "configuration is mismatched, connectors error\n[INFO] Pcie "
                  "card in slot 4 is installed\n[INFO] sendRiserCableEvent  "
                  "deviceName PCIe Slot 4 rightLocation PCIE4_CEMB "
                  "wrongLocation PCIE6_CEMB cableName CEMB\n"));
    EXPECT_THAT(analysis, Not(HasSubstr("Don't need to check cage id mismatch "
                                        "in riser 4")));
    EXPECT_THAT(analysis, HasSubstr("[INFO] Check OCP device 1\n[INFO] OCP_0 "
                                    "is set\n[INFO] x8_FRONT_OCP is unset\n"
                                    "[INFO] x16_FRONT_OCP is unset\n"));
    EXPECT_THAT(analysis, HasSubstr("[INFO] Check OCP device 2\n[INFO] OCP_1 "
                                    "is unset\n[INFO] Check OCP device 3\n"
                                    "[INFO] OCP_0 is set\n[INFO] x8_FRONT_OCP "
                                    "is unset\n[INFO] x16_FRONT_OCP is unset\n"
                                    "[INFO] Check CFF device 1\n"));

    EXPECT_EQ(platform.fpgaRiserSlots.to_ullong(), 0x1DULL);
    EXPECT_EQ(platform.fpgaMatchQueue,
              (std::map<std::uint32_t, std::string>{{1, "Slot_1_Riser"},
                                                    {3, "Slot_3_Riser"},
                                                    {4, "Slot_4_Riser"},
                                                    {5, "Slot_5_Riser"}}));
    EXPECT_TRUE(platform.cageMismatch.none());
    EXPECT_EQ(platform.cableMismatch.to_ullong(), 0x08ULL);
    std::map<std::uint32_t, bool> states;
    for (const auto& [key, device] : platform.fpgaDevices)
    {
        if (key >= 17)
        {
            states[key] = device.state;
        }
    }
    EXPECT_EQ(
        states,
        (std::map<std::uint32_t, bool>{
            {18, true},
            {20, true},
            {21, true},
            {22, true},
            {41, true},
            {42, false},
            {43, false},
            {44, true},
            {45, false},
            {46, true},
            {47, false},
            {48, false},
            {49, false},
            {50, false},
            {51, false},
            {87, false},
            {89, false},
            {90, false}}));
    EXPECT_EQ(platform.fpgaDevices.at(22).name, "RISER_5_INSTALLED");
    EXPECT_EQ(platform.fpgaDevices.at(46).name, "SLOT_6_ADAPTER_PRSNT");

    const auto events = journal.events(getpid(), 8);
    EXPECT_EQ(summary(events),
              (std::vector<std::string>{
                  "TKRMBIO0032I Slot::1 Riser", "TKRMBIO0032I PCIe Card::1",
                  "TKRMBIO0032I Slot::3 Riser", "TKRMBIO0032I Slot::4 Riser",
                  "TKRMBIO0032I PCIe Card::4",
                  "TKRMBIO0041G CEMB::PCIe Slot 4::PCIE6_CEMB::PCIE4_CEMB",
                  "TKRMBIO0032I Slot::5 Riser", "TKRMBIO0032I OCP::1"}));
    ASSERT_EQ(events.size(), 8U);
    EXPECT_EQ(events[0].at("MESSAGE"),
              "This message is for the use case when an implementation has "
              "detected that a device has installed.");
    EXPECT_EQ(events[5].at("MESSAGE"),
              "TKRMBIO0041G:PCIe Slot 4 signal cable misconnected");
}

TEST_F(ReadOut, CableCageAndOcpJudgements)
{
    auto machine = test::kelvaneImages();
    // Position 1 clear, 2 set: riser 1 is installed but sends no event.
    machine.set(machine.remote, 20, 1, 0x1E);
    // Riser 4: cage mismatch, cable A not connected, B on the wrong
    // connector. Riser 5: its one cable not connected.
    machine.topology(4, 3, 4, 0, 5, 0x44);
    machine.topology(5, 9, 0, 0, 0, 0x5A);
    // The front x8 OCP takes the OCP_0 bit: OCP device 3, not 1.
    machine.set(machine.remote, 12, 6, 0x09);
    machine.write(images);
    test::JournalReader journal;
    Platform::Kelvane1u platform;
    readOut(platform);
    const auto analysis = presence(platform);

    EXPECT_THAT(analysis, HasSubstr("[INFO] Riser 4 for PCIe slot 4 "
                                    "configuration is mismatched, Cage ID "
                                    "error\n[INFO] Riser 4 for PCIe slot 4 "
                                    "configuration is mismatched, connectors "
                                    "error\n"));
    EXPECT_THAT(analysis, HasSubstr("[INFO] Check OCP device 1\n[INFO] OCP_0 "
                                    "is set\n[INFO] x8_FRONT_OCP is set\n"
                                    "[INFO] Check OCP device 2\n"));
    EXPECT_EQ(platform.cageMismatch.to_ullong(), 0x08ULL);
    EXPECT_EQ(platform.cableMismatch.to_ullong(), 0x18ULL);
    EXPECT_TRUE(platform.fpgaDevices.at(18).state);
    EXPECT_EQ(platform.fpgaMatchQueue.count(1), 1U);
    EXPECT_FALSE(platform.fpgaDevices.at(46).state);
    EXPECT_TRUE(platform.fpgaDevices.at(48).state);

    const auto events = journal.events(getpid(), 9);
    EXPECT_EQ(summary(events),
              (std::vector<std::string>{
                  "TKRMBIO0032I PCIe Card::1", "TKRMBIO0032I Slot::3 Riser",
                  "TKRMBIO0032I Slot::4 Riser", "TKRMBIO0032I PCIe Card::4",
                  "TKRMBIO0040G CEMA::PCIe Slot 4::PCIE3_CEMA",
                  "TKRMBIO0041G CEMB::PCIe Slot 4::PCIE5_CEMA::PCIE4_CEMB",
                  "TKRMBIO0032I Slot::5 Riser",
                  "TKRMBIO0038G PCIe Slot 5::PCIE9", "TKRMBIO0032I OCP::3"}));
}
