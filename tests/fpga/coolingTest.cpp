// Fan types, the block 12 refresh and the liquid cooling call of the
// hardware thread's last steps.

#include "platforms/cooling.hpp"

#include "dbus/client.hpp"
#include "fpga/fpgaImages.hpp"
#include "machineImages.hpp"
#include "platforms/kelvane1u.hpp"
#include "privateBus.hpp"
#include "process.hpp"
#include "sandbox.hpp"

#include <cstdlib>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using testing::HasSubstr;

namespace
{
std::size_t count(const std::string& text, const std::string& part)
{
    std::size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos;
         at = text.find(part, at + part.size()))
    {
        ++found;
    }
    return found;
}
} // namespace

TEST(Cooling, FanTypesAndBlock12Refresh)
{
    Platform::Kelvane1u platform;
    fpgaImages().clear();
    // No image at all: the thread's guard reports the lookup.
    EXPECT_THROW(platform.getFpgaFanInfo(), std::out_of_range);

    // An unread image gives type 0 for every fan.
    fpgaImages()[1] = FpgaImage{};
    testing::internal::CaptureStderr();
    platform.getFpgaFanInfo();
    EXPECT_EQ(count(testing::internal::GetCapturedStderr(), " fantype 0\n"),
              8U);

    // 0b00001011 at offset 12, 0b00100100 at offset 11; the other bits of
    // both bytes do not count.
    auto& image = fpgaImages()[1];
    image.valid = true;
    image.regs[12 * 16 + 12] = 0xF0 | 0x0B;
    image.regs[12 * 16 + 11] = 0xC3 | 0x24;
    testing::internal::CaptureStderr();
    platform.getFpgaFanInfo();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[INFO] [platformHighvol] getFpgaFanInfo\n"
              "[INFO] [platformHighvol] getFpgaFanInfo 1U fan 1 fantype 2\n"
              "[INFO] [platformHighvol] getFpgaFanInfo 1U fan 2 fantype 2\n"
              "[INFO] [platformHighvol] getFpgaFanInfo 1U fan 3 fantype 3\n"
              "[INFO] [platformHighvol] getFpgaFanInfo 1U fan 4 fantype 3\n"
              "[INFO] [platformHighvol] getFpgaFanInfo 1U fan 5 fantype 2\n"
              "[INFO] [platformHighvol] getFpgaFanInfo 1U fan 6 fantype 2\n"
              "[INFO] [platformHighvol] getFpgaFanInfo 1U fan 7 fantype 1\n"
              "[INFO] [platformHighvol] getFpgaFanInfo 1U fan 8 fantype 1\n");

    // Before fpgaDump there is nothing to refresh.
    platform.refreshFpgaBlock12();

    // The refresh reads block 12 of remote FPGA 0 over the image's block 12
    // and nothing else.
    test::TempDir images;
    setenv("HALVEX_FPGA_IMAGES", images.path().c_str(), 1);
    auto machine = test::kelvaneImages();
    machine.write(images);
    test::writeFile(images / "access.log", "");
    platform.fpgaBlock1 = image.regs.data();
    image.regs[11 * 16 + 15] = 0x77;
    image.regs[13 * 16] = 0x66;
    platform.refreshFpgaBlock12();
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&image.regs[192]), 16),
              machine.remote.substr(192, 16));
    EXPECT_EQ(image.regs[11 * 16 + 15], 0x77);
    EXPECT_EQ(image.regs[13 * 16], 0x66);
    // A failed read changes nothing and is not reported.
    std::filesystem::remove(images / "remote0.img");
    testing::internal::CaptureStderr();
    platform.refreshFpgaBlock12();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(test::readFile(images / "access.log"),
              "remote0.img block 12 offset 0 length 16 result 0\n"
              "remote0.img block 12 offset 0 length 16 result -2\n");
    unsetenv("HALVEX_FPGA_IMAGES");
    fpgaImages().clear();
}

TEST(Cooling, CreateSensorsIsRetriedUntilItSucceedsOnce)
{
    test::PrivateBus bus;
    Platform::Kelvane1u platform;

    // The service is not there yet: a critical line, tried again next time.
    testing::internal::CaptureStderr();
    platform.applyPlatformCoolingSettings();
    platform.applyPlatformCoolingSettings();
    auto log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(count(log, "[INFO] applyPlatformCoolingSettings: type 0\n"
                         "[CRITICAL] setLiquidCooling failed: "),
              2U);
    EXPECT_FALSE(Platform::liquidCoolingApplied);
    // The mutex is free again.
    ASSERT_TRUE(dbus::dbusClientMutex.try_lock());
    dbus::dbusClientMutex.unlock();

    test::Process service(
        test::builtProgram("sim/liquid_cooling/liquid-cooling"), {});
    for (int i = 0;
         i < 500 && service.standardOutput().find("ready") == std::string::npos;
         ++i)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_THAT(service.standardOutput(), HasSubstr("ready"));

    testing::internal::CaptureStderr();
    platform.applyPlatformCoolingSettings();
    platform.applyPlatformCoolingSettings();
    log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(log, "[INFO] applyPlatformCoolingSettings: type 0\n"
                   "[INFO] setLiquidCooling called successfully!\n");
    EXPECT_TRUE(Platform::liquidCoolingApplied);
    EXPECT_EQ(count(service.standardOutput(), "CreateSensors 0\n"), 1U);
    ASSERT_TRUE(dbus::dbusClientMutex.try_lock());
    dbus::dbusClientMutex.unlock();
}
