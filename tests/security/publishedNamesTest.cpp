// What the daemon publishes from rule files, the PSU file and VPD: PSU names
// that would leave their place are refused with one line and cost nothing
// else, board names the bus cannot carry cost their object alone, I2C links
// stay in /dev and point into /sys, and board objects are read-only for
// other clients.

#include "dbus/bus.hpp"
#include "dbus/client.hpp"
#include "discoveryFixture.hpp"
#include "platforms/i2cLink.hpp"
#include "platforms/kelvane1u.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using test::DiscoveryFixture;
using testing::HasSubstr;
using testing::Not;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
namespace fs = std::filesystem;

namespace
{
constexpr auto service = "com.halvex.hwtopod";

VpdProperties backplane(std::uint16_t location)
{
    return {{"VpdId", std::uint8_t{0x70}},
            {"PosIdValue", std::uint8_t{112}},
            {"VpdLocation", location},
            {"VpdName", std::string("BP ") + std::to_string(location)},
            {"VpdFound", true},
            {"VpdFormat", std::string("Halvex_Fullv3")},
            {"BUS", std::uint32_t{7}}};
}

class PublishedNames : public DiscoveryFixture
{
  protected:
    void TearDown() override
    {
        platform.reset();
        DiscoveryFixture::TearDown();
    }

    std::string start()
    {
        CaptureStderr();
        platform = std::make_unique<Platform::Kelvane1u>(
            Platform::Seams{.root = hwtopod::Root(root.path())});
        platform->serviceInit();
        platform->serviceRun();
        return GetCapturedStderr();
    }

    std::unique_ptr<Platform::Kelvane1u> platform;
};

TEST_F(PublishedNames, PsuNamesAndTypesThatLeaveTheirPlaceAreRefused)
{
    test::writeFile(
        root / "usr/share/vantarack-bmc-apps/hwtopod/bhs_2p_2psus.json",
        R"([
        {"Name": "../basecfg", "Type": "PowerSupply"},
        {"Name": "PSU0/x", "Type": "PowerSupply"},
        {"Name": "PSU 1", "Type": "PowerSupply"},
        {"Name": "PSU2", "Type": "hwtopod.hardware"},
        {"Name": "PSU3", "Type": "Power-Supply"},
        {"Name": "", "Type": "PowerSupply"},
        {"Name": "PSU4", "Type": "PowerSupply", "FruId": 4}
    ])");
    const auto log = start();
    EXPECT_EQ(test::countInText(log, "[ERROR] Refused PSU Name "), 4U) << log;
    EXPECT_EQ(test::countInText(log, "[ERROR] Refused PSU Type "), 2U) << log;
    EXPECT_THAT(log, Not(HasSubstr("[CRITICAL]")));
    EXPECT_THAT(log, HasSubstr("[INFO] Service is set\n"));

    // The good PSU after all the bad ones is there, and nothing else below
    // the PSU path.
    const auto objects = test::getManagedObjects(service);
    std::vector<std::string> psus;
    for (const auto& [path, interfaces] : objects)
    {
        if (path.starts_with("/com/halvex/platform/hardware/psus"))
        {
            psus.push_back(path);
        }
    }
    EXPECT_EQ(psus, std::vector<std::string>{
                        "/com/halvex/platform/hardware/psus/PSU4"});
    EXPECT_EQ(test::getProperty(service,
                                "/com/halvex/platform/hardware/psus/PSU4",
                                "com.halvex.PowerSupply", "FruId")
                  .content.get<std::uint64_t>(),
              4U);
}

TEST_F(PublishedNames, NamesTheBusCannotCarryFailAtTheInitialisation)
{
    // Before the object server exists nothing is added or said.
    platform = std::make_unique<Platform::Kelvane1u>(
        Platform::Seams{.root = hwtopod::Root(root.path())});
    CaptureStderr();
    EXPECT_FALSE(platform->addDbusInterface("chassis", "a.b"));
    EXPECT_EQ(GetCapturedStderr(), "");
    start();
    // Then any pair is added once; the bus refuses bad names at initialize().
    auto interface = platform->addDbusInterface("chassis", "com..halvex");
    ASSERT_TRUE(interface);
    EXPECT_THROW(interface->initialize(), dbus::Error);
    EXPECT_FALSE(platform->addDbusInterface("chassis", "com..halvex"));
}

// Backplane topology entries with bad names around a good one: each bad one
// costs its object alone, which the bus refuses; the good one is published,
// and its properties cannot be set by another client.
TEST_F(PublishedNames, TopologyNamesFromRuleFilesAndReadOnlyBoards)
{
    writeRule("kelvane80_1u_pass1_trd.json", nlohmann::json::parse(R"({
      "backplanes": {"NormalBP": [
        {"Name": "../../com/halvex/platform/basecfg",
         "Interface": "com.halvex.hwtopod.hardware", "Location": 1,
         "Properties": {"BackplaneId": 1, "BusNumber": 30}},
        {"Name": "BP 2", "Interface": "com.halvex.hwtopod.backplane/x",
         "Location": 2, "Properties": {"BackplaneId": 2, "BusNumber": 30}},
        {"Name": "Front BP 4", "Interface": "com.halvex.hwtopod.backplane",
         "Location": 4, "Properties": {"BackplaneId": 4, "BusNumber": 30}}
      ]},
      "risers": [], "midplanes": []
    })"));
    writeRule("bhs_backplanes.json", nlohmann::json::parse(R"([
      {"Name": "Drive backplane", "POSID": 112,
       "com.halvex.hwtopod.backplane": {"BackplaneName": "$VpdName"}}
    ])"));
    writeRule("bhs_risers.json", nlohmann::json::array());
    makeI2cBus(30);
    start();
    CaptureStderr();
    platform->platformInfoInit();
    GetCapturedStderr();
    platform->markHardwareDiscovered();
    for (std::uint16_t location : {1, 2, 4})
    {
        platform->discovery
            .vpdObjects["/com/halvex/vpdd/BP_" + std::to_string(location)] =
            backplane(location);
    }
    CaptureStderr();
    platform->discoveryWorker->run([this]() { platform->probeCachedVpdd(); });
    const auto log = GetCapturedStderr();

    EXPECT_EQ(test::countInText(log, "[CRITICAL] Exception in probeCachedVpdd"),
              2U)
        << log;

    const auto found = nlohmann::json::parse(
        test::readFile(root / "var/configuration/backplanes_found.json"));
    ASSERT_EQ(found["backplanes"].size(), 3U);
    EXPECT_EQ(found["backplanes"][2]["BackplaneId"], 4);
    EXPECT_TRUE(
        test::getManagedObjects(service).contains("/chassis/bp/Front_BP_4"));
    EXPECT_TRUE(fs::is_symlink(root / "dev/bp1_i2c"));
    EXPECT_TRUE(fs::is_symlink(root / "dev/bp4_i2c"));
    // The basecfg object keeps its own interfaces only.
    EXPECT_EQ(test::getAllProperties(service, "/com/halvex/platform/basecfg",
                                     "com.halvex.hwtopod.hardware")
                  .size(),
              14U);

    EXPECT_THROW(dbus::setProperty(service, "/chassis/bp/Front_BP_4",
                                   "com.halvex.hwtopod.backplane",
                                   "BackplaneId", std::uint64_t{9}),
                 dbus::Error);
    EXPECT_EQ(test::getProperty(service, "/chassis/bp/Front_BP_4",
                                "com.halvex.hwtopod.backplane", "BackplaneId")
                  .content.get<std::uint64_t>(),
              4U);
}

// A sysfs bus entry that climbs out with ".." or points anywhere absolute
// never gives a /dev link outside /sys.
TEST_F(PublishedNames, I2cLinksPointIntoSysOnly)
{
    fs::create_directories(root / "sys/bus/i2c/devices");
    fs::create_directories(root / "etc");
    fs::create_directories(root / "sys/devices/x");
    fs::create_symlink("../../../../etc", root / "sys/bus/i2c/devices/i2c-1");
    fs::create_symlink("/etc", root / "sys/bus/i2c/devices/i2c-2");
    fs::create_symlink("../../../devices/x/..",
                       root / "sys/bus/i2c/devices/i2c-3");

    CaptureStderr();
    const Root sandbox(root.path().string());
    createI2cLink(sandbox, DeviceType::Backplane, 1, 1);
    EXPECT_FALSE(createI2cLink(sandbox, DeviceType::Backplane, 2, 2));
    EXPECT_FALSE(createI2cLink(sandbox, DeviceType::Backplane, 3, 3));
    const auto log = GetCapturedStderr();
    EXPECT_EQ(test::countInText(log, "[ERROR] [ERR] CANNOT FIND THE PATH : "),
              2U)
        << log;

    // Whatever was made lies in /dev and points below /sys.
    for (const auto& link : fs::directory_iterator(root / "dev"))
    {
        ASSERT_TRUE(fs::is_symlink(link.path()));
        const auto target = fs::read_symlink(link.path()).string();
        EXPECT_TRUE(target.starts_with(sandboxPath("sys/"))) << target;
        EXPECT_THAT(target, Not(HasSubstr(".."))) << target;
    }
    EXPECT_EQ(fs::read_symlink(root / "dev/bp1_i2c").string(),
              sandboxPath("sys/etc"));
}

} // namespace
