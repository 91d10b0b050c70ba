// The event records as a consumer reads them from the journal.

#include "events/events.hpp"

#include "journal.hpp"
#include "monitor/faultTable.hpp"

#include <unistd.h>

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <fstream>
#include <set>

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

std::string args(const JournalRecord& record)
{
    auto found = record.find("REDFISH_MESSAGE_ARGS");
    return found == record.end() ? "<none>" : found->second;
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

// What a Redfish event log makes of the records: every record any emitter
// writes, in every shape, must have its message in the shipped registry with
// as many arguments as the record carries ("::"-separated; none for an absent
// or empty field), and numbers where the message takes numbers.
TEST(Events, ShippedRegistryDefinesEveryRecord)
{
    std::ifstream file(std::string(std::getenv("HWTOPOD_SOURCE_ROOT")) +
                       "/data/registries/EventRegistry.1.0.0.json");
    const auto messages = nlohmann::json::parse(file).at("Messages");
    for (const auto& [id, entry] : messages.items())
    {
        const auto count = entry.at("NumberOfArgs").get<std::size_t>();
        const auto text = entry.at("Message").get<std::string>();
        EXPECT_EQ(entry.at("ParamTypes").size(), count) << id;
        EXPECT_EQ(entry.at("Severity"), entry.at("MessageSeverity")) << id;
        EXPECT_FALSE(entry.at("Resolution").get<std::string>().empty()) << id;
        EXPECT_EQ(text.find("%" + std::to_string(count + 1)),
                  std::string::npos);
        for (std::size_t n = 1; n <= count; ++n)
        {
            EXPECT_NE(text.find("%" + std::to_string(n)), std::string::npos)
                << id << " %" << n;
        }
    }

    JournalReader reader;
    for (std::uint32_t value = 0; value <= 40; ++value)
    {
        const auto type = static_cast<DeviceType>(value);
        // A named element's record is its name; the others may have none.
        const bool named = type == DeviceType::NamedElement ||
                           type == DeviceType::NamedElementAlt;
        for (const bool present : {true, false})
        {
            for (const bool install : {true, false})
            {
                sendPresentEvent(type, present, 2, named ? "Fan" : "", install);
                sendPresentEvent(type, present, 2, "PWR_3", install);
            }
        }
    }
    // Each kind with the details its callers pass.
    const std::vector<std::pair<int, std::string>> mismatches = {
        {0, ""},
        {1, "to correct location"},
        {1, "CEMA::M1::CEMB::M2"},
        {2, ""},
        {3, ""},
        {4, "FPGA"},
        {5, ""},
        {6, ""},
        {7, ""}};
    for (const auto type : {DeviceType::Cpu, DeviceType::SlotRiser})
    {
        for (const auto& [kind, detail] : mismatches)
        {
            sendConfigMismatchEvent(type, static_cast<ConfigMismatchKind>(kind),
                                    "2", detail);
        }
    }
    for (const int kind : {1, 2})
    {
        sendRiserCableEvent(kind, "PCIe Slot 4", "PCIE3", "PCIE4", "");
        sendRiserCableEvent(kind, "PCIe Slot 4", "PCIE3", "PCIE4", "CEMA");
    }
    for (const auto& row : fpgaGpioTable())
    {
        if (row.monitored)
        {
            writeZmcEvent(row.eventId, row.index, row.deviceName);
            if (*row.deassertEventId != '\0')
            {
                writeZmcEvent(row.deassertEventId, row.index, row.deviceName);
            }
        }
    }
    sendChassisClosedEvent("Vantarack");

    // The chassis record is the last; the journal keeps a writer's order.
    auto records = reader.events(getpid(), 1);
    for (auto had = records.size();
         had != 0 && args(records.back()) != "Vantarack"; had = records.size())
    {
        records = reader.events(getpid(), had + 1);
        if (records.size() == had)
        {
            break;
        }
    }
    std::set<std::string> seen;
    for (const auto& record : records)
    {
        const auto id = record.at("REDFISH_MESSAGE_ID").substr(prefix.size());
        seen.insert(id);
        ASSERT_TRUE(messages.contains(id)) << id;
        const auto text = args(record);
        std::vector<std::string> values;
        for (std::size_t at = 0; text != "<none>" && !text.empty();)
        {
            const auto end = text.find("::", at);
            values.push_back(text.substr(at, end - at));
            if (end == std::string::npos)
            {
                break;
            }
            at = end + 2;
        }
        const auto& types = messages[id].at("ParamTypes");
        ASSERT_EQ(values.size(), types.size()) << id << " " << text;
        for (std::size_t n = 0; n < values.size(); ++n)
        {
            EXPECT_TRUE(
                types[n] == "string" ||
                values[n].find_first_not_of("0123456789") == std::string::npos)
                << id << " " << text;
        }
    }
    EXPECT_EQ(seen.size(), messages.size());
}
