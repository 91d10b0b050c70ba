// The real daemon binary on a private bus, seen from outside.

#include "busClient.hpp"
#include "privateBus.hpp"
#include "process.hpp"
#include "sandbox.hpp"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using testing::HasSubstr;

namespace
{
constexpr auto service = "com.halvex.hwtopod";
constexpr auto dataDir = "/usr/share/vantarack-bmc-apps/hwtopod/";

// The daemon as its unit starts it, standard error the journal's stream.
const auto underManager = test::builtProgram("sim/manager/hwtopod-sim-manager");
const std::vector<std::string> daemonUnderManager = {
    "--journal-stream", "--",
    test::builtProgram("src/platforms/hwtopod").string()};

std::map<std::string, std::string> sandboxEnvironment(const test::TempDir& root)
{
    return {{"HWTOPOD_ROOT", root.path().string()},
            {"HWTOPOD_STATUS", "normal"},
            {"HW_REV_BASE", test::unsetValue}};
}
} // namespace

TEST(Daemon, PublishesThePlatformWithoutVpdOrFpga)
{
    test::PrivateBus bus;
    test::TempDir root;
    test::writeFile(root / "etc/os-release", "HALVEX_BUILDID=\"QDM413B\"\n");
    test::writeFile(
        root / (std::string(dataDir) + "bhs_2p_2psus.json"),
        test::readFile(test::sourceRoot() / "data/bhs_2p_2psus.json"));

    // Standard error is the journal's stream, as the unit gives it: each
    // line carries its level as the journal's priority, and its text.
    auto environment = sandboxEnvironment(root);
    environment["HW_REV_BASE"] = "x12";
    test::Process daemon(underManager, daemonUnderManager, environment);
    ASSERT_TRUE(daemon.waitForLog("<6>[INFO] platformInfoInit added \n"))
        << daemon.standardError();
    ASSERT_TRUE(daemon.waitForLog("[INFO] Thread for service is forked\n"));

    auto hardware = test::getAllProperties(
        service, "/com/halvex/platform/basecfg", "com.halvex.hwtopod.hardware");
    // The facts themselves are those of the simulated machine; here only
    // the revision, which falls back to its default without the VPD service.
    EXPECT_EQ(hardware.at("HardwareRevision").content.get<std::uint64_t>(), 1U);

    const auto log = daemon.standardError();
    EXPECT_THAT(log, HasSubstr("[INFO] Halvex Intel BHS Platform: Mainstream "
                               "1U <Kelvane1u>\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] hwtopod is started normally\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] platform use default "
                               "HardwareRevisionLevel value:1\n"));
    EXPECT_THAT(log, HasSubstr("\n<3>[ERROR] getPropertyValue "
                               "HardwareRevisionLevel failed: "));
    EXPECT_THAT(log, HasSubstr("\n<4>[WARNING] Motherboard revision "
                               "compatibility is unkown\n"));
    EXPECT_THAT(
        log,
        HasSubstr("[INFO] [STATE0] FIND THE JSON psuConfigFiles, PATH = "
                  "/usr/share/vantarack-bmc-apps/hwtopod/bhs_2p_2psus.json\n"));
    EXPECT_THAT(log, HasSubstr("\n<6>[INFO] Service is set\n"));
    EXPECT_TRUE(daemon.running());
}

TEST(Daemon, ExitsWhenItCannotServe)
{
    test::TempDir root;
    {
        // No bus at all. Standard error is the journal's stream.
        auto environment = sandboxEnvironment(root);
        environment["DBUS_SYSTEM_BUS_ADDRESS"] =
            "unix:path=" + (root / "none").string();
        test::Process daemon(underManager, daemonUnderManager, environment);
        EXPECT_NE(daemon.waitForExit(std::chrono::seconds(10)), 0);
        EXPECT_THAT(daemon.standardError(),
                    HasSubstr("\n<2>[CRITICAL] Exception in serviceInit: "));
    }
    {
        // A bus that accepts and never answers holds start-up, the hardware
        // thread's wait for the object server included, until it closes; then
        // the process ends instead of waiting on.
        const auto socketPath = root / "silent";
        const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath.c_str(),
                     sizeof(address.sun_path) - 1);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address),
                       sizeof(address)),
                  0);
        ASSERT_EQ(listen(listener, 1), 0);
        // Standard error is a file, whatever stream the variable names.
        auto environment = sandboxEnvironment(root);
        environment["DBUS_SYSTEM_BUS_ADDRESS"] =
            "unix:path=" + socketPath.string();
        struct stat other
        {};
        ASSERT_EQ(stat(root.path().c_str(), &other), 0);
        environment["JOURNAL_STREAM"] =
            std::to_string(other.st_dev) + ":" + std::to_string(other.st_ino);
        test::Process daemon(test::builtProgram("src/platforms/hwtopod"), {},
                             environment);
        const int peer = accept(listener, nullptr, nullptr);
        ASSERT_GE(peer, 0);
        close(peer);
        close(listener);
        EXPECT_NE(daemon.waitForExit(std::chrono::seconds(10)), 0);
        const auto log = daemon.standardError();
        EXPECT_THAT(log, HasSubstr("\n[CRITICAL] Exception in serviceInit: "));
        EXPECT_THAT(log, testing::StartsWith("[INFO] "));
        EXPECT_THAT(log, testing::Not(HasSubstr("\n<")));
    }
}
