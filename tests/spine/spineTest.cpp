// Start-up facts that need no bus: log lines, environment, version mark.

#include "common/logging.hpp"
#include "common/paths.hpp"
#include "dbus/client.hpp"
#include "platforms/kelvane1u.hpp"
#include "platforms/platformInfo.hpp"
#include "sandbox.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

TEST(LogLine, PrefixBlankTextNewline)
{
    // A byte is a number, not a character.
    CaptureStderr();
    logWarning() << "count " << 5 << " flag " << true << " byte "
                 << std::uint8_t{7};
    EXPECT_EQ(GetCapturedStderr(), "[WARNING] count 5 flag 1 byte 7\n");

    // A write that fails (here: a full non-blocking pipe) costs that line
    // alone, not every later one.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    const int savedStderr = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    std::string buffer(fcntl(ends[1], F_SETPIPE_SZ, 4096), 'x');
    ASSERT_EQ(write(ends[1], buffer.data(), buffer.size()), 4096);
    logInfo() << "lost";
    ASSERT_EQ(read(ends[0], buffer.data(), buffer.size()), 4096);
    logInfo() << "kept";
    const auto got = read(ends[0], buffer.data(), buffer.size());
    dup2(savedStderr, STDERR_FILENO);
    EXPECT_EQ(buffer.substr(0, got > 0 ? static_cast<std::size_t>(got) : 0),
              "[INFO] kept\n");
}

namespace
{
struct StartEnvironment
{
    const char* revision;
    const char* status;
};

std::string constructWith(StartEnvironment environment, std::uint64_t& revision,
                          bool& normalStart)
{
    auto set = [](const char* name, const char* value) {
        if (value == nullptr)
        {
            unsetenv(name);
        }
        else
        {
            setenv(name, value, 1);
        }
    };
    set("HW_REV_BASE", environment.revision);
    set("HWTOPOD_STATUS", environment.status);
    CaptureStderr();
    {
        Platform::Kelvane1u platform{Platform::Seams{}};
        revision = platform.motherboardRevisionBase;
        normalStart = platform.normalStart;
    }
    unsetenv("HW_REV_BASE");
    unsetenv("HWTOPOD_STATUS");
    return GetCapturedStderr();
}
} // namespace

TEST(Environment, RevisionAndRestartAreParsed)
{
    std::uint64_t revision = 99;
    bool normal = false;

    auto log = constructWith({"12x", "normal"}, revision, normal);
    EXPECT_EQ(revision, 12U);
    EXPECT_TRUE(normal);
    EXPECT_THAT(
        log, HasSubstr("[INFO] Motherboard revision compatibility is : 12\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] hwtopod is started normally\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] System is up "));

    for (const char* bad : {"x12", "", "4294967296"})
    {
        log = constructWith({bad, nullptr}, revision, normal);
        EXPECT_EQ(revision, 0U) << bad;
        EXPECT_THAT(log, HasSubstr("[WARNING] Motherboard revision "
                                   "compatibility is unkown\n"));
        EXPECT_TRUE(normal);
        EXPECT_THAT(log, HasSubstr("[WARNING] Environment variable "
                                   "HWTOPOD_STATUS is not set.\n"));
    }

    log = constructWith({"4294967295", ""}, revision, normal);
    EXPECT_EQ(revision, 4294967295U);
    EXPECT_FALSE(normal) << "an empty status marks a restart";
    EXPECT_THAT(log, HasSubstr("[WARNING] hwtopod is restarted\n"));

    log = constructWith({nullptr, "restart"}, revision, normal);
    EXPECT_FALSE(normal);
    EXPECT_THAT(log, testing::Not(HasSubstr("Motherboard")));
}

TEST(MiniVersion, FollowsTheParityOfTheBuild)
{
    CaptureStdout();
    EXPECT_EQ(Platform::miniVersionFor("01W", "QDM414B"), "00W");
    EXPECT_EQ(Platform::miniVersionFor("01W", "QDM413B"), "01W");
    // The sixth character decides; a letter there counts as odd.
    EXPECT_EQ(Platform::miniVersionFor("01W", "QDM41AB"), "01W");
    EXPECT_EQ(Platform::miniVersionFor("00W", "QDM413B"), "01W");
    EXPECT_EQ(Platform::miniVersionFor("99W", "QDM414B"), "100W");
    EXPECT_EQ(Platform::miniVersionFor("97X", "QDM414B"), "00X");
    EXPECT_EQ(Platform::miniVersionFor("12W", "QDM413B"), "11W");
    EXPECT_EQ(Platform::miniVersionFor("12W", "QDM414B"), "12W");
    // Six characters are too few, whatever the sixth one is.
    EXPECT_EQ(Platform::miniVersionFor("02W", "QDM414"), "01W");
    EXPECT_EQ(GetCapturedStdout(),
              "invalid firmware build ID = QDM414 is detected\n");
}

TEST(MiniVersion, BuildIdComesFromOsRelease)
{
    test::TempDir root;
    const Root sandbox(root.path().string());
    EXPECT_EQ(Platform::readBuildId(sandbox), "QDM413B") << "no file";

    test::writeFile(
        root / "etc/os-release",
        "NAME=x\n X_HALVEX_BUILDID=\"BAD\"\nHALVEX_BUILDID=\"QDM500A\"\n");
    EXPECT_EQ(Platform::readBuildId(sandbox), "QDM500A");
    test::writeFile(root / "etc/os-release", "HALVEX_BUILDID=QDM502C\n");
    EXPECT_EQ(Platform::readBuildId(sandbox), "QDM502C");
    test::writeFile(root / "etc/os-release", " HALVEX_BUILDID=QDM502C\n");
    EXPECT_EQ(Platform::readBuildId(sandbox), "QDM413B")
        << "key not at line start";
}

TEST(Introspection, InterfaceNamesWithoutTheStandardOnes)
{
    const std::string xml =
        "<node><interface name=\"org.freedesktop.DBus.Properties\"></interface>"
        "<interface name=\"com.halvex.vpdd.Halvex_Fullv3\"><property/></interface>"
        "<interface name=\"com.halvex.vpdd.Other\"/>"
        "<interface name=\"broken";
    EXPECT_THAT(dbus::interfacesOfIntrospection(xml),
                testing::ElementsAre("com.halvex.vpdd.Halvex_Fullv3",
                                     "com.halvex.vpdd.Other"));
    EXPECT_TRUE(dbus::interfacesOfIntrospection("<node/>").empty());
}
