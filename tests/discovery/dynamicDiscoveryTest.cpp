// Discovery of a Kelvane1u from its VPD objects, held against the FPGA's
// picture, read back from the bus, the result files, /dev and the journal.

#include "discoveryFixture.hpp"
#include "platforms/kelvane1u.hpp"
#include "rules/rules.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using test::DiscoveryFixture;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using Events = std::multiset<std::pair<std::string, std::string>>;

namespace
{
const auto trd = nlohmann::json::parse(R"({
  "backplanes": {
    "NormalBP": [
      {"Name": "Front BP 1", "Interface": "com.halvex.hwtopod.backplane",
       "Location": 1, "Properties": {"BackplaneId": 1, "BusNumber": 30,
                                     "Connector": 11}}
    ],
    "E3.S": [
      {"Name": "E3S BP 1", "Interface": "com.halvex.hwtopod.backplane",
       "Location": 1, "Properties": {"BackplaneId": 1, "BusNumber": 30}}
    ]
  },
  "risers": [
    {"Name": "Riser 1", "Interface": "com.halvex.hwtopod.riser",
     "Location": 1, "PosID": 0,
     "Properties": {"Location": "Front", "RiserSlot": 1, "PCIeSlot": [1, 2],
                    "BUS": 40, "MCIO": ["PCIE1_CEMA", "PCIE2_CEMB"],
                    "Connector": 21}},
    {"Name": "Riser 3", "Interface": "com.halvex.hwtopod.riser",
     "Location": 3, "PosID": 0,
     "Properties": {"Location": "Rear", "RiserSlot": 3, "PCIeSlot": [3],
                    "BUS": 44, "MCIO": ["PCIE3_CEMA"], "Connector": 23}},
    {"Name": "Riser 4", "Interface": "com.halvex.hwtopod.riser",
     "Location": 4, "PosID": 0,
     "Properties": {"Location": "Rear", "RiserSlot": 4, "PCIeSlot": [4],
                    "BUS": 48, "MCIO": ["PCIE4_CEMB"], "Connector": 24}}
  ],
  "midplanes": []
})");

const auto backplaneRules = nlohmann::json::parse(R"([
  {"Name": "Drive backplane", "POSID": 112,
   "com.halvex.hwtopod.backplane": {
     "BackplaneId": "$BackplaneId", "BusNumber": "$BusNumber",
     "Connector": "$Connector", "BackplaneName": "$VpdName"}}
])");

const auto riserRules = nlohmann::json::parse(R"([
  {"Name": "Riser card", "POSID": 224.0,
   "com.halvex.hwtopod.riser": {
     "RiserSlot": "$RiserSlot", "PCIeSlot": "$PCIeSlot", "BUS": "$BUS",
     "MCIO": "$MCIO", "Connector": "$Connector", "RiserName": "$VpdName"}}
])");

VpdProperties board(std::uint8_t id, std::uint8_t posId, std::uint16_t location,
                    const std::string& name)
{
    return {{"VpdId", id},
            {"PosIdValue", posId},
            {"VpdLocation", location},
            {"VpdName", name},
            {"VpdFound", true},
            {"VpdFormat", std::string("Halvex_Fullv3")},
            {"BUS", std::uint32_t{7}}};
}

class DynamicDiscovery : public DiscoveryFixture
{
  protected:
    void SetUp() override
    {
        DiscoveryFixture::SetUp();
        writeRule("kelvane80_1u_pass1_trd.json", trd);
        writeRule("bhs_backplanes.json", backplaneRules);
        writeRule("bhs_risers.json", riserRules);
        makeI2cBus(30);
        CaptureStderr();
        platform = std::make_unique<Platform::Kelvane1u>(
            Platform::Seams{.root = hwtopod::Root(root.path())});
        platform->serviceInit();
        platform->serviceRun();
        platform->platformInfoInit();
        platform->initPcieSlotMap();
        GetCapturedStderr();
    }
    void TearDown() override
    {
        platform.reset();
        DiscoveryFixture::TearDown();
    }

    // The FPGA's picture: risers present by number, each position's status
    // byte, old risers; then the presence analysis as the hardware thread
    // runs it.
    void fpgaSees(std::initializer_list<unsigned> risers,
                  std::map<unsigned, std::uint8_t> status,
                  std::initializer_list<unsigned> old = {})
    {
        for (unsigned r : risers)
        {
            platform->hardware.readout.riserPresence.set(r - 1);
        }
        for (unsigned position = 1; position <= 24; ++position)
        {
            auto& entry =
                platform->hardware.readout.riserTopology[position - 1];
            entry.bytes = {1, 2, 1, 0x03};
            if (status.contains(position))
            {
                entry.bytes[3] = status[position];
            }
        }
        for (unsigned r : old)
        {
            platform->hardware.readout.oldRisers.set(r - 1);
            platform->hardware.readout.riserTopology[r - 1].bytes[0] = 0;
        }
        platform->checkPresence();
        platform->markHardwareDiscovered();
    }

    std::string discover()
    {
        CaptureStderr();
        platform->discoveryWorker->run([this]() {
            platform->probeCachedVpdd();
        });
        return GetCapturedStderr();
    }

    std::unique_ptr<Platform::Kelvane1u> platform;
};
} // namespace

TEST_F(DynamicDiscovery, RisersSeenByOneSideOnlyAndWrongLocations)
{
    // Riser 4 sits in the wrong cage; riser 5 is seen by the FPGA alone, as
    // an old riser in the wrong cage with its cable wrong; riser 3 is seen by
    // VPD alone.
    fpgaSees({1, 4, 5}, {{4, 0x01}, {5, 0x00}}, {5});
    platform->discovery.vpdObjects["/com/halvex/vpdd/RISER_1"] =
        board(0xE0, 224, 1, "Riser A");
    platform->discovery.vpdObjects["/com/halvex/vpdd/RISER_3"] =
        board(0xE0, 224, 3, "Riser B");
    platform->discovery.vpdObjects["/com/halvex/vpdd/RISER_4"] =
        board(0xE0, 224, 4, "Riser C");
    // An E3.S position id anywhere makes every backplane E3.S.
    platform->discovery.vpdObjects["/com/halvex/vpdd/BP_1"] =
        board(0x70, 0xE4, 1, "E3 BP");
    auto log = discover();

    EXPECT_EQ(platform->discovery.backplaneType, "E3.S");
    EXPECT_THAT(log, HasSubstr("[ERROR] PCIe <Slot 5 riser> has location "
                               "mismatch status for PCIe slot 5\n"));
    EXPECT_EQ(platform->discovery.fpgaMatchQueue.size(), 1U);

    const Events events = eventsSoFar();
    EXPECT_EQ(events.count({"TKRMBSS0012G", "FPGA::Riser 3"}), 1U);
    EXPECT_EQ(events.count({"TKRMBSS0012G", "BMC::Slot 5 Riser"}), 1U);
    EXPECT_EQ(events.count({"TKRMBIO0035G", "Riser 4"}), 1U);
    EXPECT_EQ(events.count({"TKRMBIO0035G", "Slot 5 Riser"}), 1U);
    EXPECT_EQ(
        events.count({"TKRMBIO0037G", "Slot 5 Riser::to correct location"}),
        1U);
    EXPECT_EQ(countId(events, "TKRMBSS0012G"), 2U);
}

TEST_F(DynamicDiscovery, OddRuleDataCostsOnlyWhatItSpoils)
{
    // A name the bus refuses costs backplane 1 its object alone; its id 258
    // is 2 as a byte. A record without BackplaneId costs the whole board. A
    // slot below 1 costs that slot, riser 1's BUS -1 its links; riser 3 has
    // no slot to link and no numeric BUS; riser 4 names the last slot a riser
    // can carry, past the FPGA's status table, and has a VpdFormat that is no
    // string; riser 5's RiserSlot -1 is read as a number above 31.
    auto& trdBackplanes = (*platform->trdBackplanes)["NormalBP"];
    trdBackplanes[0]["Name"] = "Front-BP 1";
    trdBackplanes[0]["Properties"]["BackplaneId"] = 258;
    trdBackplanes.push_back({{"Name", "BP 2"},
                             {"Location", 2},
                             {"Interface", "com.halvex.hwtopod.backplane"}});
    auto& trdRisers = *platform->trdRisers;
    trdRisers[0]["Properties"]["PCIeSlot"] = {-1, 2};
    trdRisers[0]["Properties"]["BUS"] = -1;
    trdRisers[1]["Properties"]["PCIeSlot"] = nlohmann::json::array();
    trdRisers[1]["Properties"]["BUS"] = "forty";
    trdRisers[2]["Properties"]["PCIeSlot"] = {30};
    trdRisers.push_back(trdRisers[2]);
    trdRisers[3]["Location"] = 5;
    trdRisers[3]["Properties"]["RiserSlot"] = -1;
    fpgaSees({1, 3, 4}, {});
    for (auto [name, id, location] :
         {std::tuple{"BP_1", 0x70, 1},
          {"BP_2", 0x70, 2},
          {"RISER_1", 0xE0, 1},
          {"RISER_3", 0xE0, 3},
          {"RISER_4", 0xE0, 4},
          {"RISER_5", 0xE0, 5}})
    {
        auto vpd = board(static_cast<std::uint8_t>(id), id == 0x70 ? 112 : 224,
                         static_cast<std::uint16_t>(location), name);
        vpd.erase("VpdFormat");
        platform->discovery
            .vpdObjects[std::string("/com/halvex/vpdd/") + name] = vpd;
    }
    platform->discovery.vpdObjects["/com/halvex/vpdd/RISER_4"]["VpdFormat"] =
        std::uint32_t{7};
    auto log = discover();

    EXPECT_TRUE(platform->discovery.fpgaMatchQueue.empty()) << log;
    EXPECT_THAT(log, HasSubstr("[WARNING] Pcie slot index error: "
                               "18446744073709551615\n"));
    EXPECT_THAT(log, HasSubstr("[ERROR] Riser slot index error\n"));
    EXPECT_THAT(log, HasSubstr("CANNOT FIND THE PATH : "
                               "/sys/bus/i2c/devices/i2c-1\n"));
    EXPECT_THAT(log, HasSubstr("==>(Backplane_2)\n"));
    // Three probes end; the FRU names of the boards without a format are
    // refused by the bus, each with its own line.
    EXPECT_EQ(test::countInText(log, "[CRITICAL] Exception in "), 3U) << log;
    EXPECT_EQ(test::countInText(log, "[CRITICAL] Exception in probeCachedVpdd "
                                     "for VPDD path /com/halvex/vpdd/BP_2: "),
              1U);
    EXPECT_EQ(nlohmann::json::parse(
                  test::readFile(root / rules::risersFoundFile))["risers"]
                  .size(),
              2U);
    EXPECT_EQ(platform->discovery.backplanesFound["backplanes"].size(), 1U);
    EXPECT_TRUE(std::filesystem::is_symlink(root / "dev/bp258_i2c"));
    const Events events = eventsSoFar();
    EXPECT_EQ(events.count({"TKRMBIO0034I", "PWR_21::Slot::1 Riser"}), 1U);
    EXPECT_EQ(events.count({"TKRMBIO0034I", "PWR_23::Slot::3 Riser"}), 1U);
    EXPECT_EQ(countId(events, "TKRMBIO0034I"), 4U);
    for (const char* mismatch :
         {"TKRMBSS0012G", "TKRMBIO0035G", "TKRMBIO0036G", "TKRMBIO0037G"})
    {
        EXPECT_EQ(countId(events, mismatch), 0U) << mismatch;
    }
}

TEST_F(DynamicDiscovery, RiserSeenByTheFpgaAloneAndBackplanesNotByType)
{
    fpgaSees({1}, {});
    // The backplane section must be keyed by type: an array fails the object.
    *platform->trdBackplanes = nlohmann::json::array();
    platform->discovery.vpdObjects["/com/halvex/vpdd/BP_1"] =
        board(0x70, 112, 1, "Front BP");
    const auto log = discover();
    EXPECT_THAT(log, HasSubstr("[ERROR] BMC didn't detect PCIe Riser 1\n"));
    EXPECT_THAT(log, HasSubstr("[CRITICAL] Exception in probeCachedVpdd for "
                               "VPDD path /com/halvex/vpdd/BP_1: "));
}

TEST_F(DynamicDiscovery, FpgaReadoutAfterTheBoundChecksRisersWhenItComes)
{
    platform->hardwareWaitLimit = std::chrono::seconds(0);
    (*platform->trdRisers)[1]["Properties"]["BUS"] = "forty";
    makeI2cBus(41);
    platform->discovery.vpdObjects["/com/halvex/vpdd/BP_1"] =
        board(0x70, 112, 1, "Front BP");
    platform->discovery.vpdObjects["/com/halvex/vpdd/RISER_1"] =
        board(0xE0, 224, 1, "Riser A");
    platform->discovery.vpdObjects["/com/halvex/vpdd/RISER_3"] =
        board(0xE0, 224, 3, "Riser B");
    auto log = discover();
    EXPECT_THAT(log,
                HasSubstr("[WARNING] Board discovery waited 0 seconds for the "
                          "FPGA read-out and goes on without it\n"));
    EXPECT_EQ(platform->discovery.backplanesFound["backplanes"].size(), 1U);
    // Done now: riser 1's links, and riser 3's probe ends on its string BUS.
    EXPECT_EQ(platform->discovery.risersFound["risers"].size(), 1U);
    EXPECT_TRUE(std::filesystem::is_symlink(root / "dev/pcie_slot1_i2c"));
    EXPECT_THAT(log, HasSubstr("[CRITICAL] Exception in probeCachedVpdd for "
                               "VPDD path /com/halvex/vpdd/RISER_3: "));

    // Neither side is held against the other until the FPGA has looked.
    CaptureStderr();
    fpgaSees({1, 4}, {});
    platform->discoveryWorker->run([]() {});
    log += GetCapturedStderr();
    EXPECT_THAT(log,
                HasSubstr("[INFO] FPGA also detected <PCIe Slot 1 Riser>"));
    EXPECT_THAT(log, HasSubstr("[ERROR] BMC didn't detect PCIe Riser 4\n"));
    EXPECT_EQ(test::countInText(log, "Board discovery has ended"), 1U);
    EXPECT_EQ(eventsSoFar().count({"TKRMBSS0012G", "BMC::Slot 4 Riser"}), 1U);
    EXPECT_EQ(countId(eventsSoFar(), "TKRMBSS0012G"), 1U);
}
