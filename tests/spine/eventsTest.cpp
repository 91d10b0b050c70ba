// The event records as a consumer reads them from the journal.

#include "events/events.hpp"

#include "journal.hpp"

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using hwtopod::test::JournalReader;
using hwtopod::test::JournalRecord;
using testing::ElementsAre;

namespace
{
const std::string prefix = "EventRegistry.1.0.";

// "ID args" of each record; every record has the registry prefix, the
// priority and the sending function given.
std::vector<std::string> summary(const std::vector<JournalRecord>& records,
                                 const std::string& priority,
                                 const std::string& function)
{
    for (const auto& record : records)
    {
        EXPECT_TRUE(record.at("REDFISH_MESSAGE_ID").starts_with(prefix));
        EXPECT_EQ(record.at("PRIORITY"), priority);
        EXPECT_EQ(record.at("CODE_FUNC"), function);
    }
    return test::summaries(records);
}
} // namespace

TEST(Events, ZmcRecordsCarryIndexOnlyWhenGiven)
{
    JournalReader reader;
    writeZmcEvent("TKRMBPW0133N", 255, "");
    writeZmcEvent("TKRMBPW0129N", 0, "PVCC");
    writeZmcEvent("TKRMBPU2001I", 1, "");
    auto records = reader.events(getpid(), 3);
    // 255 means no index: an empty value, not a missing field.
    EXPECT_THAT(summary(records, "3", "sendZmcEvent"),
                ElementsAre("TKRMBPW0133N ", "TKRMBPW0129N 0::PVCC",
                            "TKRMBPU2001I 1::"));
    for (const auto& record : records)
    {
        EXPECT_EQ(record.at("MESSAGE"), message::powerFault);
        EXPECT_NE(record.at("CODE_FILE").find("events.cpp"), std::string::npos);
        EXPECT_FALSE(record.at("CODE_LINE").empty());
    }
}

TEST(Events, PresentEventsByTypeAndKind)
{
    JournalReader reader;
    sendPresentEvent(DeviceType::Backplane, true, 0, "", false);
    sendPresentEvent(DeviceType::Backplane, true, 0, "M.2_PWR", false);
    sendPresentEvent(DeviceType::PcieRiser, true, 2, "", false);
    sendPresentEvent(DeviceType::SlotRiser, true, 3, "", true);
    sendPresentEvent(DeviceType::SlotRiser, false, 3, "PWR_4", false);
    sendPresentEvent(DeviceType::Backplane, true, 2, "PWR_3", false);
    // No record for these two: a card and an OCP device only have install
    // records.
    sendPresentEvent(DeviceType::PcieCard, true, 5, "", false);
    sendPresentEvent(DeviceType::Ocp, true, 1, "", false);
    sendPresentEvent(DeviceType::PcieCard, false, 5, "", true);
    sendPresentEvent(DeviceType::SecurityJumper, true, 0, "", false);
    sendPresentEvent(DeviceType::FrontPanel, false, 0, "", false);
    sendPresentEvent(DeviceType::NamedElement, true, 0, "Fan", false);
    sendPresentEvent(DeviceType::Cpu, true, 1, "", false);

    auto records = reader.events(getpid(), 10);
    ASSERT_EQ(records.size(), 10U);
    EXPECT_THAT(summary(records, "6", "sendPresentEvent"),
                ElementsAre("TKRMBIO0000I links with M.2 Backplane",
                            "TKRMBIO0034I M.2_PWR::M.2::Backplane",
                            "TKRMBIO0000I links with PCIe Riser 2",
                            "TKRMBIO0032I Slot::3 Riser", "TKRMBIO2000J PWR_4",
                            "TKRMBIO0034I PWR_3::Backplane::2",
                            "TKRMBIO0033I PCIe Card::5", "TKRMBUN0026I <none>",
                            "TKRMBPR2003I <none>", "TKRMBIO0000I Fan"));
    EXPECT_EQ(records[0].at("MESSAGE"), message::connected);
    EXPECT_EQ(records[3].at("MESSAGE"), message::installed);
    EXPECT_EQ(records[4].at("MESSAGE"), message::disconnected);
    EXPECT_EQ(records[6].at("MESSAGE"), message::uninstalled);
    EXPECT_EQ(records[7].at("MESSAGE"), message::present);
    EXPECT_EQ(records[8].at("MESSAGE"), message::absent);
    EXPECT_EQ(records[9].at("MESSAGE"), message::present);
}

TEST(Events, ConfigMismatchKinds)
{
    JournalReader reader;
    sendConfigMismatchEvent(DeviceType::SlotRiser,
                            ConfigMismatchKind::WrongLocation, "Riser 4", "");
    sendConfigMismatchEvent(DeviceType::SlotRiser,
                            ConfigMismatchKind::CableMisconnected, "Riser 4",
                            "to correct location");
    sendConfigMismatchEvent(DeviceType::SlotRiser,
                            ConfigMismatchKind::CableMisconnected, "Riser 5",
                            "CEMA::PCIE1_CEMA::CEMB::PCIE2_CEMB");
    sendConfigMismatchEvent(DeviceType::SlotRiser,
                            ConfigMismatchKind::NotDetected, "Slot 3 Riser",
                            "BMC");
    sendConfigMismatchEvent(
        DeviceType::Cpu, ConfigMismatchKind::ProcessorConfiguration, "2", "");
    sendConfigMismatchEvent(DeviceType::Cpu,
                            ConfigMismatchKind::ProcessorFeature, "2", "");
    sendConfigMismatchEvent(DeviceType::PcieRiser,
                            ConfigMismatchKind::SystemMismatch, "X", "");
    // Dropped: a type outside CPU and risers, and kind 2.
    sendConfigMismatchEvent(DeviceType::PcieCard,
                            ConfigMismatchKind::WrongLocation, "Y", "");
    sendConfigMismatchEvent(DeviceType::Cpu, static_cast<ConfigMismatchKind>(2),
                            "Z", "");

    auto records = reader.events(getpid(), 7);
    ASSERT_EQ(records.size(), 7U);
    EXPECT_THAT(
        summary(records, "6", "sendConfigMismatchEvent"),
        ElementsAre("TKRMBIO0035G Riser 4",
                    "TKRMBIO0037G Riser 4::to correct location",
                    "TKRMBIO0036G Riser 5::CEMA::PCIE1_CEMA::CEMB::PCIE2_CEMB",
                    "TKRMBSS0012G BMC::Slot 3 Riser", "TKRMBPU0009N 2",
                    "TKRMBPU0015G ", "TKRMBCP0001G X"));
    EXPECT_EQ(records[0].at("MESSAGE"), message::wrongLocation);
    EXPECT_EQ(records[1].at("MESSAGE"), message::cable);
    EXPECT_EQ(records[3].at("MESSAGE"), message::notDetected);
    EXPECT_EQ(records[4].at("MESSAGE"), message::processorConfiguration);
    EXPECT_EQ(records[5].at("MESSAGE"), message::processorFeature);
    EXPECT_EQ(records[6].at("MESSAGE"), message::systemMismatch);
}

TEST(Events, RiserCableRecordsBuildTheirText)
{
    JournalReader reader;
    sendRiserCableEvent(2, "PCIe Slot 4", "PCIE3_CEMA", "", "");
    sendRiserCableEvent(2, "PCIe Slot 4", "PCIE3_CEMA", "", "CEMA");
    sendRiserCableEvent(1, "PCIe Slot 5", "PCIE3_CEMA", "PCIE4_CEMB", "");
    sendRiserCableEvent(1, "PCIe Slot 5", "PCIE4_CEMB", "PCIE9", "CEMB");
    auto records = reader.events(getpid(), 4);
    ASSERT_EQ(records.size(), 4U);
    EXPECT_THAT(
        summary(records, "6", "sendRiserCableEvent"),
        ElementsAre("TKRMBIO0038G PCIe Slot 4::PCIE3_CEMA",
                    "TKRMBIO0040G CEMA::PCIe Slot 4::PCIE3_CEMA",
                    "TKRMBIO0039G PCIe Slot 5::PCIE4_CEMB::PCIE3_CEMA",
                    "TKRMBIO0041G CEMB::PCIe Slot 5::PCIE9::PCIE4_CEMB"));
    EXPECT_EQ(records[0].at("MESSAGE"),
              "TKRMBIO0038G:PCIe Slot 4 signal cable not connected");
    EXPECT_EQ(records[3].at("MESSAGE"),
              "TKRMBIO0041G:PCIe Slot 5 signal cable misconnected");
}

TEST(Events, ChassisClosedRecord)
{
    JournalReader reader;
    sendChassisClosedEvent("Vantarack");
    auto records = reader.events(getpid(), 1);
    EXPECT_THAT(summary(records, "4", "remedyChassisCloseEvent"),
                ElementsAre("TKRMBSE2000I Vantarack"));
    EXPECT_EQ(records.at(0).at("MESSAGE"), message::chassisClosed);
}
