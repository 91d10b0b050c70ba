// The real daemon started as its unit starts it, by the service manager's
// stand-in: readiness, milestones and a watchdog, the VPD service ordered
// after the daemon's readiness, and clients of other users on a bus with the
// stock system policy.

#include "privateBus.hpp"
#include "process.hpp"
#include "sandbox.hpp"

#include <signal.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using testing::HasSubstr;

namespace
{
constexpr auto service = "com.halvex.hwtopod";

// busctl on the bus as the user nobody: its exit status and what it wrote.
std::pair<int, std::string> busctlAsNobody(const test::PrivateBus& bus,
                                           std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(),
                     {"--reuid=65534", "--regid=65534", "--clear-groups",
                      "busctl", "--address=" + bus.address()});
    test::Process client("/usr/bin/setpriv", arguments);
    const int status = client.waitForExit(std::chrono::seconds(30));
    return {status, client.standardOutput() + client.standardError()};
}
} // namespace

TEST(Service, ReadyOnceTheVpdMatchIsInstalledAndReadableByOtherUsers)
{
    test::TempDir sandbox;
    const auto source = test::sourceRoot();
    ASSERT_EQ(std::system(
                  ("python3 " + (source / "sim/scenario.py").string() + " " +
                   (source / "sim/scenarios/healthy").string() + " " +
                   sandbox.path().string() + " " + (source / "data").string())
                      .c_str()),
              0);
    // The VPD service is up and holds its objects until the daemon is
    // ready; then they all come as signals at once.
    auto vpd = nlohmann::json::parse(test::readFile(sandbox / "vpdd.json"));
    vpd["objects"][0]["hold"] = true;
    test::writeFile(sandbox / "vpdd.json", vpd.dump());

    test::PrivateBus bus;
    test::Process vpdd(test::builtProgram("sim/vpdd/vpdd"),
                       {(sandbox / "vpdd.json").string()});
    for (int i = 0; i < 500 && vpdd.standardOutput().empty(); ++i)
    {
        ::usleep(20000);
    }
    ASSERT_THAT(vpdd.standardOutput(), HasSubstr("started"));

    // The VPD service's unit is ordered after the daemon's, and a watchdog
    // of 2 s asked for. The daemon is held on READY=1 until the VPD service
    // has published its last object: what it had not done by then, such as
    // installing its match, comes too late.
    test::Process manager(
        test::builtProgram("sim/manager/hwtopod-sim-manager"),
        {"--watchdog-usec", "2000000", "--after-ready",
         std::to_string(vpdd.pid()), "--pause-on-ready", "--",
         test::builtProgram("src/platforms/hwtopod").string()},
        {{"HWTOPOD_ROOT", (sandbox / "root").string()},
         {"HALVEX_FPGA_IMAGES", (sandbox / "fpga").string()},
         {"HWTOPOD_SIM_GPIO", (sandbox / "gpio").string()},
         {"LD_LIBRARY_PATH", (test::buildRoot() / "sim/gpiod").string()},
         {"HWTOPOD_STATUS", "normal"}});
    const auto last =
        "published " + vpd["objects"].back()["path"].get<std::string>();
    for (int i = 0;
         i < 3000 && vpdd.standardOutput().find(last) == std::string::npos; ++i)
    {
        ::usleep(20000);
    }
    const auto started = manager.standardOutput();
    ::kill(std::stoi(started.substr(started.find("started ") + 8)), SIGCONT);
    constexpr auto ended = "notify STATUS=Board discovery has ended";
    for (int i = 0;
         i < 3000 && manager.standardOutput().find(ended) == std::string::npos;
         ++i)
    {
        ::usleep(20000);
    }
    std::vector<std::string> statuses;
    std::istringstream lines(manager.standardOutput());
    std::size_t ready = 0;
    std::size_t fed = 0;
    for (std::string line; std::getline(lines, line);)
    {
        ready += line == "notify READY=1" ? 1 : 0;
        fed += line == "notify WATCHDOG=1" ? 1 : 0;
        if (line.starts_with("notify STATUS="))
        {
            statuses.push_back(line.substr(7));
        }
    }
    EXPECT_EQ(ready, 1U) << manager.standardError();
    // Every board of the machine is found from the signals alone, and
    // start-up has gone through its milestones in order.
    EXPECT_THAT(statuses,
                testing::ElementsAre(
                    "STATUS=Waiting for the FPGA",
                    "STATUS=FPGA read out, waiting for the VPD service",
                    "STATUS=Board discovery running",
                    "STATUS=Board discovery has ended: 3 backplanes, 4 risers, "
                    "0 midplanes found"))
        << manager.standardError();
    // Reading the FPGA alone takes seconds: the loop has fed the watchdog
    // more than once by now, and in time.
    EXPECT_GE(fed, 2U);
    EXPECT_THAT(manager.standardOutput(),
                testing::Not(HasSubstr("watchdog expired")));

    // Another user reads every object, and can neither change one nor take
    // the name.
    const auto [objectsStatus, objects] = busctlAsNobody(
        bus, {"call", service, "/", "org.freedesktop.DBus.ObjectManager",
              "GetManagedObjects"});
    EXPECT_EQ(objectsStatus, 0) << objects;
    EXPECT_THAT(objects, HasSubstr("/chassis/riser/"));
    const auto [introspectStatus, introspection] = busctlAsNobody(
        bus, {"introspect", service, "/com/halvex/platform/basecfg"});
    EXPECT_EQ(introspectStatus, 0) << introspection;
    EXPECT_THAT(introspection, HasSubstr(".HardwareRevision"));
    const auto [setStatus, set] = busctlAsNobody(
        bus, {"set-property", service, "/com/halvex/platform/basecfg",
              "com.halvex.hwtopod.hardware", "HardwareRevision", "t", "7"});
    EXPECT_NE(setStatus, 0);
    EXPECT_THAT(set, HasSubstr("Access denied"));
    const auto [ownStatus, own] = busctlAsNobody(
        bus, {"call", "org.freedesktop.DBus", "/org/freedesktop/DBus",
              "org.freedesktop.DBus", "RequestName", "su", service, "0"});
    EXPECT_NE(ownStatus, 0);
    EXPECT_THAT(own, HasSubstr("Access denied"));
}
