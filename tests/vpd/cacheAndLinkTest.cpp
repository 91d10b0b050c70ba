// The VPD cache merge and the I2C device links.

#include "platforms/i2cLink.hpp"
#include "rules/vpdValue.hpp"
#include "sandbox.hpp"

#include <cstdlib>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using hwtopod::DbusVariant;
using hwtopod::DeviceType;
using hwtopod::InterfaceProperties;
using hwtopod::VpdCache;
using hwtopod::VpdProperties;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
namespace fs = std::filesystem;

DbusVariant text(const char* value)
{
    return DbusVariant(std::string(value));
}

TEST(VpdCache, MergeKeepsFirstValuesAndSkipsStandardInterfaces)
{
    VpdCache cache;
    hwtopod::mergeVpdObjects(
        cache,
        {{"/com/halvex/vpdd/BP_1",
          InterfaceProperties{
              {"org.freedesktop.DBus.Properties",
               VpdProperties{{"Leak", text("x")}}},
              {"com.halvex.vpdd.Zeta",
               VpdProperties{{"VpdName", text("z")}, {"OnlyZeta", text("z")}}},
              {"com.halvex.vpdd.Halvex_Fullv3",
               VpdProperties{{"VpdName", text("first")},
                             {"VpdId", DbusVariant(std::uint8_t{0x70})}}}}},
         {"/com/halvex/vpdd/Empty",
          InterfaceProperties{{"org.freedesktop.DBus.Introspectable", {}},
                              {"org.freedesktop.DBus.Peer", {}}}}});

    ASSERT_EQ(cache.size(), 1U);
    const auto& entry = cache.at("/com/halvex/vpdd/BP_1");
    // The interface whose name sorts first wins a name both hold.
    EXPECT_EQ(std::get<std::string>(entry.at("VpdName")), "first");
    EXPECT_EQ(std::get<std::string>(entry.at("OnlyZeta")), "z");
    EXPECT_EQ(std::get<std::uint8_t>(entry.at("VpdId")), 0x70);
    EXPECT_FALSE(entry.contains("Leak"));

    // A later update adds names and changes none; the match callback's merge
    // takes standard interfaces too.
    hwtopod::mergeVpdObject(
        cache, "/com/halvex/vpdd/BP_1",
        {{"com.halvex.vpdd.Halvex_Fullv3",
          VpdProperties{{"VpdName", text("second")},
                        {"IpmiFruName", text("new")}}},
         {"org.freedesktop.DBus.Properties",
          VpdProperties{{"Leak", text("y")}}}},
        false);
    EXPECT_EQ(std::get<std::string>(entry.at("VpdName")), "first");
    EXPECT_EQ(std::get<std::string>(entry.at("IpmiFruName")), "new");
    EXPECT_EQ(std::get<std::string>(entry.at("Leak")), "y");
}

class I2cLinks : public testing::Test
{
  protected:
    void SetUp() override
    {
        fs::create_directories(root / "sys/devices/platform/x/i2c-7");
        fs::create_directories(root / "sys/bus/i2c/devices");
        fs::create_directories(root / "dev");
        fs::create_directory_symlink("../../../devices/platform/x/i2c-7",
                                     root / "sys/bus/i2c/devices/i2c-7");
    }

    // Where a /dev link resolves, or empty when it does not.
    fs::path resolved(const std::string& name)
    {
        std::error_code error;
        auto path = fs::canonical(root / ("dev/" + name), error);
        return error ? fs::path() : path;
    }

    hwtopod::test::TempDir root;
    const hwtopod::Root sandbox{root.path()};
};

TEST_F(I2cLinks, LinksResolveInsideTheSandbox)
{
    const fs::path bus = fs::canonical(root / "sys/devices/platform/x/i2c-7");
    CaptureStderr();
    EXPECT_TRUE(hwtopod::createI2cLink(sandbox, DeviceType::Backplane, 2, 7));
    // A second call replaces the link of the first.
    EXPECT_TRUE(hwtopod::createI2cLink(sandbox, DeviceType::Backplane, 2, 7));
    EXPECT_TRUE(hwtopod::createI2cLink(sandbox, DeviceType::PcieCard, 13, 7));
    EXPECT_TRUE(hwtopod::createI2cLink(sandbox, DeviceType::Midplane, 0, 7));
    EXPECT_EQ(GetCapturedStderr(), "");

    EXPECT_TRUE(fs::is_symlink(root / "dev/bp2_i2c"));
    EXPECT_EQ(fs::read_symlink(root / "dev/bp2_i2c"),
              root / "sys/devices/platform/x/i2c-7");
    EXPECT_EQ(resolved("bp2_i2c"), bus);
    EXPECT_EQ(resolved("pcie_slot13_i2c"), bus);
    EXPECT_EQ(resolved("midplane0_i2c"), bus);
    EXPECT_EQ(std::distance(fs::directory_iterator(root / "dev"), {}), 3);
}

TEST_F(I2cLinks, RefusalsAndFailures)
{
    fs::create_directory_symlink("/nowhere", root / "dev/bp4_i2c");
    fs::create_directory_symlink(root / "sys/devices/platform/x/i2c-7",
                                 root / "dev/bp5_i2c");
    fs::create_directories(root / "sys/bus/i2c/devices/i2c-9");

    CaptureStderr();
    EXPECT_FALSE(hwtopod::createI2cLink(sandbox, DeviceType::PcieRiser, 1, 7));
    EXPECT_FALSE(hwtopod::createI2cLink(sandbox, DeviceType::Backplane, 5, 11));
    EXPECT_FALSE(hwtopod::createI2cLink(sandbox, DeviceType::Backplane, 4, 7));
    const std::string log = GetCapturedStderr();
    EXPECT_THAT(log, testing::StartsWith(
                         "[INFO] Device does not support i2c link creation\n"
                         "[ERROR] [ERR] CANNOT FIND THE PATH : "
                         "/sys/bus/i2c/devices/i2c-11\n"
                         "[CRITICAL] [ERR] CANNOT CREATE A SYMBOLIC LINK : "));

    // Nothing made for the refusals; the good link of an earlier run stays.
    EXPECT_FALSE(fs::exists(fs::symlink_status(root / "dev/pcie_slot1_i2c")));
    EXPECT_EQ(resolved("bp5_i2c"),
              fs::canonical(root / "sys/devices/platform/x/i2c-7"));
    EXPECT_EQ(fs::read_symlink(root / "dev/bp4_i2c"), "/nowhere");

    // A bus entry that is no link is the caller's problem.
    EXPECT_THROW(hwtopod::createI2cLink(sandbox, DeviceType::Backplane, 1, 9),
                 fs::filesystem_error);
}

} // namespace
