// Machines that keep the platform defaults probe each VPD object as it
// comes: backplanes, risers and midplanes against the rule files one by one.

#include "discoveryFixture.hpp"
#include "platforms/platformBase.hpp"
#include "rules/rules.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using test::DiscoveryFixture;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace
{
constexpr auto risersFile = "risers.json";
constexpr auto powerFile = "pdb.json";

const auto trd = nlohmann::json::parse(R"({
  "backplanes": [
    {"Name": "Static BP 1", "Interface": "com.halvex.hwtopod.backplane",
     "Location": 1, "PosID": 113, "Properties": {"BackplaneId": 9}},
    {"Name": "Static/BP 1", "Interface": "com.halvex.hwtopod.backplane",
     "Location": 1, "Properties": {"BackplaneId": 3, "BusNumber": 30}},
    {"Name": "No Id", "Interface": "com.halvex.hwtopod.backplane",
     "Location": 3, "Properties": {"BusNumber": 30}},
    {"Name": "Virtual BP", "Interface": "com.halvex.hwtopod.backplane",
     "Location": 2, "Properties": {"BackplaneId": 4, "VirtualBP": true}}
  ],
  "risers": [
    {"Name": "Riser Two", "Interface": "com.halvex.hwtopod.riser",
     "Location": 2, "PosID": 99, "Properties": {"RiserSlot": 8}},
    {"Name": "Riser Two", "Interface": "com.halvex.hwtopod.riser",
     "Location": 2, "PosID": 0,
     "Properties": {"RiserSlot": 2, "PCIeSlot": [3, 0, 4], "BUS": 20,
                    "BusOffset": -1, "Connector": 7}},
    {"Name": "Riser-Four", "Interface": "com.halvex.hwtopod.riser",
     "Location": 4, "PosID": 0, "Properties": {"RiserSlot": -1,
     "PCIeSlot": [5], "BUS": 2, "BusOffset": -5}}
  ],
  "midplanes": [
    {"Name": "Midplane A", "Interface": "com.halvex.hwtopod.midplane",
     "PwrBpPosID": 129, "Properties": {"Index": 1, "Bus": 60}},
    {"Name": "Midplane B", "Interface": "com.halvex.hwtopod.midplane",
     "PwrBpPosID": 130},
    7
  ]
})");

VpdProperties object(std::uint8_t id, std::uint8_t posId,
                     std::uint16_t location)
{
    return {{"VpdId", id},
            {"PosIdValue", posId},
            {"VpdLocation", location},
            {"VpdName", std::string("board")},
            {"BUS", std::uint32_t{7}}};
}

class StaticDiscovery : public DiscoveryFixture
{
  protected:
    void SetUp() override
    {
        DiscoveryFixture::SetUp();
        writeRule("kelvane80_1u_pass1_trd.json", trd);
        writeRule("bhs_backplanes.json", nlohmann::json::parse(R"([
            {"Name": "BP", "POSID": 112,
             "com.halvex.hwtopod.backplane": {"Connector": 5}}])"));
        writeRule(risersFile,
                  nlohmann::json::parse(R"([{"Name": "R", "POSID": 224}])"));
        writeRule(powerFile,
                  nlohmann::json::parse(R"([{"Name": "PDB", "POSID": 129,
            "com.halvex.hwtopod.midplane": {"Index": "$Index"}},
            {"POSID": 130, "com.halvex.hwtopod.midplane": [1]},
            {"POSID": 131}])"));
        for (unsigned bus : {30, 19, 21, 60})
        {
            makeI2cBus(bus);
        }
    }

    // A platform with the defaults; its rule files are loaded as a machine
    // class would in its service setup.
    std::unique_ptr<Platform::Base> start(bool midplanes)
    {
        CaptureStderr();
        Platform::MachineDefinition machine;
        machine.risersFile = risersFile;
        if (midplanes)
        {
            machine.powerBackplanesFiles = powerFile;
            machine.midplaneProbeEnabled = true;
        }
        auto platform = std::make_unique<Platform::Base>(
            Platform::Seams{.root = hwtopod::Root(root.path())}, machine);
        platform->serviceInit();
        platform->loadTrd();
        platform->serviceRun();
        GetCapturedStderr();
        return platform;
    }

    std::string probe(Platform::Base& platform, const std::string& path,
                      VpdProperties vpd)
    {
        platform.discovery.vpdObjects[path] = std::move(vpd);
        CaptureStderr();
        platform.probeVpdd(path);
        return GetCapturedStderr();
    }
};
} // namespace

TEST_F(StaticDiscovery, BackplanesAndRisersOneByOne)
{
    auto platform = start(false);

    auto log = probe(*platform, "/com/halvex/vpdd/BP_A", object(0x70, 112, 1));
    EXPECT_THAT(log, HasSubstr("[INFO] probeVpdd: VPDID 112, POSID 112\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] hwtopod find bp \n"));
    EXPECT_EQ(linkTarget("bp3_i2c"),
              sandboxPath("sys/devices/platform/i2c/i2c-30"));
    EXPECT_EQ(test::getProperty("com.halvex.hwtopod", "/chassis/bp/Static/BP_1",
                                "com.halvex.hwtopod.backplane", "Connector")
                  .content.get<std::uint64_t>(),
              5U);

    // A virtual backplane is recorded but raises no presence event.
    probe(*platform, "/com/halvex/vpdd/BP_B", object(0x74, 112, 2));
    // No BUS property: the object is not probed.
    auto incomplete = object(0x70, 112, 1);
    incomplete.erase("BUS");
    EXPECT_THAT(probe(*platform, "/com/halvex/vpdd/BP_C", incomplete),
                HasSubstr("[WARNING] probeVpdd: properties in path "
                          "/com/halvex/vpdd/BP_C are incompleted\n"));
    // No rule for this position: each rule logs its mismatch.
    EXPECT_THAT(
        probe(*platform, "/com/halvex/vpdd/BP_D", object(0x70, 1, 1)),
        HasSubstr("[INFO] probeBpVpddStatic PosIdValue not match: 1->112\n"));

    const auto backplanes = nlohmann::json::parse(
        test::readFile(root / rules::backplanesFoundFile))["backplanes"];
    ASSERT_EQ(backplanes.size(), 2U);
    EXPECT_EQ(backplanes[1]["VirtualBP"], true);

    // The riser entry with a position id of 0 fits; slots take consecutive
    // buses from BUS + BusOffset, a 0 using one up.
    log = probe(*platform, "/com/halvex/vpdd/RISER", object(0xE0, 224, 2));
    EXPECT_THAT(
        log,
        HasSubstr("Connector of RiserSlot[2] was found in setting: PWR_7\n"));
    EXPECT_EQ(linkTarget("pcie_slot3_i2c"),
              sandboxPath("sys/devices/platform/i2c/i2c-19"));
    EXPECT_EQ(linkTarget("pcie_slot4_i2c"),
              sandboxPath("sys/devices/platform/i2c/i2c-21"));
    EXPECT_FALSE(std::filesystem::exists(root / "dev/pcie_slot0_i2c"));
    // A name the bus cannot carry costs its object alone; numbers convert.
    platform->discovery.vpdObjects["/com/halvex/vpdd/R4"] =
        object(0xE0, 224, 4);
    CaptureStderr();
    EXPECT_THROW(platform->probeVpdd("/com/halvex/vpdd/R4"), dbus::Error);
    EXPECT_THAT(GetCapturedStderr(),
                HasSubstr("CANNOT FIND THE PATH : "
                          "/sys/bus/i2c/devices/i2c-4294967293\n"));
    EXPECT_EQ(platform->discovery.risersFound["risers"].size(), 2U);

    // A midplane object is ignored unless the machine enables the probe.
    log = probe(*platform, "/com/halvex/vpdd/PDB", object(0x81, 129, 0));
    EXPECT_THAT(log, testing::Not(HasSubstr("midplane")));

    // A walk of the whole cache: an object that cannot be probed, or whose
    // record has no BackplaneId, is reported, and the walk goes on.
    VpdProperties odd = object(0x70, 112, 1);
    odd.erase("VpdLocation");
    odd["VpdName"] = std::uint32_t{7};
    platform->discovery.vpdObjects["/com/halvex/vpdd/A_ODD"] = odd;
    platform->discovery.vpdObjects["/com/halvex/vpdd/BP_E"] =
        object(0x70, 112, 3);
    CaptureStderr();
    platform->probeCachedVpdd();
    log = GetCapturedStderr();
    EXPECT_THAT(log, HasSubstr("[CRITICAL] Exception in probeCachedVpdd for "
                               "VPDD path /com/halvex/vpdd/A_ODD: "));
    EXPECT_THAT(log, HasSubstr("[INFO] probeVpdd: VPDID 129, POSID 129\n"));
    EXPECT_THAT(log, HasSubstr("[CRITICAL] Exception in probeCachedVpdd for "
                               "VPDD path /com/halvex/vpdd/BP_E: "));
    EXPECT_EQ(platform->discovery.backplanesFound["backplanes"].size(), 2U);

    const auto events = eventsSoFar();
    EXPECT_EQ(events.count({"TKRMBIO0000I", "links with Backplane 3"}), 1U);
    EXPECT_EQ(events.count({"TKRMBIO0034I", "PWR_7::PCIe Riser::2"}), 1U);
    EXPECT_EQ(
        events.count({"TKRMBIO0000I", "links with PCIe Riser 4294967295"}), 1U);
    EXPECT_EQ(events.size(), 3U);
}

TEST_F(StaticDiscovery, MidplaneFromThePowerDistributionBoard)
{
    auto platform = start(true);
    auto log = probe(*platform, "/com/halvex/vpdd/PDB", object(0x81, 129, 0));
    EXPECT_THAT(log, HasSubstr("[INFO] hwtopod find midplane\n"));
    // An entry that is no object ends the probe with its own line. A
    // template that is no object fails the record once the interface is
    // made, which stays, and the library's error leaves the probe.
    EXPECT_THAT(
        probe(*platform, "/com/halvex/vpdd/PDB_X", object(0x81, 131, 0)),
        HasSubstr("[CRITICAL] Exception in "
                  "probeChassisMidplaneBaseOnPdbStatic: "));
    platform->discovery.vpdObjects["/com/halvex/vpdd/PDB_Y"] =
        object(0x81, 130, 0);
    EXPECT_THAT([&]() { platform->probeVpdd("/com/halvex/vpdd/PDB_Y"); },
                testing::ThrowsMessage<std::runtime_error>(
                    "[json.exception.type_error.304] cannot use at() with "
                    "array"));
    EXPECT_FALSE(platform->addDbusInterface("/chassis/midplane/Midplane_B",
                                            "com.halvex.hwtopod.midplane"));
    EXPECT_EQ(linkTarget("midplane1_i2c"),
              sandboxPath("sys/devices/platform/i2c/i2c-60"));
    EXPECT_EQ(
        nlohmann::json::parse(test::readFile(root / rules::midplanesFoundFile)),
        nlohmann::json::parse(R"({"midplanes": [{"Bus": 60, "Index": 1}]})"));
    EXPECT_EQ(test::getProperty("com.halvex.hwtopod",
                                "/chassis/midplane/Midplane_A",
                                "com.halvex.hwtopod.midplane", "Bus")
                  .content.get<std::uint64_t>(),
              60U);
    EXPECT_TRUE(eventsSoFar().empty());
}
