// VPD discovery against the stand-in VPD service on a private bus: the live
// match on a first start and the read-out on a restart.

#include "platforms/kelvane1u.hpp"
#include "privateBus.hpp"
#include "process.hpp"
#include "rules/vpdValue.hpp"
#include "sandbox.hpp"

#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace std::chrono_literals;
using hwtopod::test::countInText;
using hwtopod::test::Process;
using nlohmann::json;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr auto dataDir = "usr/share/vantarack-bmc-apps/hwtopod";

// Kelvane1u with discovery replaced by a record of its calls.
class CountingPlatform : public Platform::Kelvane1u
{
  public:
    using Kelvane1u::Kelvane1u;
    using Kelvane1u::onVpdInterfacesAdded;

    void probeCachedVpdd() override
    {
        std::lock_guard lock(mutex);
        threads.push_back(std::this_thread::get_id());
        cacheAtCall.push_back(discovery.vpdObjects);
        if (failFirst && threads.size() == 1)
        {
            throw std::runtime_error("walk failed");
        }
    }

    std::size_t calls()
    {
        std::lock_guard lock(mutex);
        return threads.size();
    }

    bool failFirst = false; // the first call throws
    std::mutex mutex;
    std::vector<std::thread::id> threads;
    std::vector<hwtopod::VpdCache> cacheAtCall;
};

bool waitForOutput(const Process& process, const std::string& text)
{
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < deadline)
    {
        if (process.standardOutput().find(text) != std::string::npos)
        {
            return true;
        }
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

// A Halvex_Fullv3 FRU object of the stand-in's input.
json fru(const std::string& name, json properties)
{
    properties["VpdFormat"] = "Halvex_Fullv3";
    properties["VpdName"] = name;
    return {{"path", "/com/halvex/vpdd/" + name}, {"properties", properties}};
}

json typed(const char* type, json value)
{
    return {{"type", type}, {"value", std::move(value)}};
}

class VpdDiscovery : public testing::Test
{
  protected:
    void SetUp() override
    {
        for (const char* file :
             {"kelvane80_1u_pass1_trd.json", "bhs_backplanes.json",
              "bhs_risers.json", "bhs_2p_2psus.json"})
        {
            hwtopod::test::writeFile(
                root / (std::string(dataDir) + "/" + file),
                hwtopod::test::readFile(
                    hwtopod::test::sourceRoot() / "data" / file));
        }
    }
    void TearDown() override
    {
        platform.reset();
        ::unsetenv("HWTOPOD_STATUS");
    }

    std::unique_ptr<Process> startVpdd(const json& objects,
                                       json document = json::object())
    {
        document["objects"] = objects;
        hwtopod::test::writeFile(root / "vpdd.json", document.dump());
        return std::make_unique<Process>(
            hwtopod::test::builtProgram("sim/vpdd/vpdd"),
            std::vector<std::string>{(root / "vpdd.json").string()});
    }

    // The cache, read on the discovery worker that writes it.
    hwtopod::VpdCache cache()
    {
        hwtopod::VpdCache copy;
        platform->discoveryWorker->run([this, &copy]() {
            copy = platform->discovery.vpdObjects;
        });
        return copy;
    }

    hwtopod::test::PrivateBus bus;
    hwtopod::test::TempDir root;
    std::unique_ptr<CountingPlatform> platform;
};

TEST_F(VpdDiscovery, LiveMatchFillsTheCacheStartsDiscoveryAndRenamesFrus)
{
    ::setenv("HWTOPOD_STATUS", "normal", 1);
    platform = std::make_unique<CountingPlatform>(
        Platform::Seams{.root = hwtopod::Root(root.path())});
    // Records as the probes would have left them.
    platform->discovery.backplanesFound = {
        {"backplanes",
         {{{"BackplaneId", 2},
           {"BackplaneName", "Backplane 2"},
           {"Connector", 2}},
          {{"BackplaneId", 3},
           {"BackplaneName", "Front-BP 3"},
           {"Connector", 3}}}}};
    platform->discovery.risersFound = {
        {"risers",
         {{{"RiserSlot", 1}, {"RiserName", "PCIe Riser 1"}, {"Connector", 11}},
          {{"RiserSlot", 5}, {"Connector", 15}}}}};

    const json hpm = fru("HPM_VPD", {{"HalvexProductNameTextDescription",
                                      "Vantarack KP100,1U rack server"},
                                     {"HardwareRevisionLevel", typed("t", 3)}});
    json dimm =
        fru("DIMM_32", {{"VpdId", typed("y", 0x10)}, {"VpdFound", true}});
    dimm["interfaces"] = {{"com.halvex.vpdd.Aux", {{"Size", typed("q", 64)}}}};
    json riser = {{"path", "/com/halvex/vpdd/Riser_1"},
                  {"properties",
                   {{"VpdFormat", "Halvex_Riser"}, {"IpmiFruName", "Riser"}}},
                  {"interfaces",
                   {{"com.halvex.vpdd.Halvex_Fullv3",
                     {{"VpdFormat", "Halvex_Riser"},
                      {"VpdFound", true},
                      {"VpdId", typed("y", 0xE0)},
                      {"VpdLocation", typed("n", 11)},
                      {"IpmiFruName", "Riser"}}}}}};
    const json objects = {
        hpm,
        // Before the ready object: only cached, never renamed.
        fru("BP_1", {{"VpdId", typed("y", 0x70)},
                     {"PosIdValue", typed("y", 48)},
                     {"BUS", typed("y", 30)},
                     {"VpdLocation", typed("y", 2)},
                     {"VpdFound", true},
                     {"IpmiFruName", "old"},
                     {"Lanes", typed("as", json{"A", "B"})}}),
        dimm,
        // After it: names kept in line with the records.
        fru("BP_2", {{"VpdId", typed("q", 0x74)},
                     {"VpdLocation", typed("u", 2)},
                     {"VpdFound", true},
                     {"IpmiFruName", "Backplane_2"}}),
        fru("BP_3", {{"VpdId", typed("i", 0x70)},
                     {"VpdLocation", typed("t", 3)},
                     {"VpdFound", true},
                     {"IpmiFruName", "junk"}}),
        riser,
        fru("BP_bad", {{"VpdId", typed("y", 0x70)},
                       {"VpdLocation", 3},
                       {"VpdFound", "yes"}}),
        fru("Riser_5", {{"VpdId", typed("y", 0xE0)},
                        {"VpdLocation", typed("x", 15)},
                        {"VpdFound", true},
                        {"IpmiFruName", "x"}}),
        fru("BP_off", {{"VpdId", typed("y", 0x70)},
                       {"VpdLocation", 3},
                       {"VpdFound", false},
                       {"IpmiFruName", "x"}}),
        fru("phy_card_vpd", {{"CardFruNumber", "09ZT415"},
                             {"IpmiFruName", "Switch"},
                             {"VpdFound", true},
                             {"VpdId", typed("y", 0x30)}}),
    };

    CaptureStderr();
    platform->serviceInit();
    platform->serviceRun();
    auto vpdd = startVpdd(objects);
    ASSERT_TRUE(waitForOutput(*vpdd, "IpmiFruName Mgt_Switch_Card"));
    const auto cached = cache();
    std::string log = GetCapturedStderr();

    // Discovery ran once, on the io thread, with what had come by then.
    ASSERT_EQ(platform->calls(), 1U);
    EXPECT_NE(platform->threads[0], std::this_thread::get_id());
    const auto& atCall = platform->cacheAtCall[0];
    EXPECT_EQ(atCall.size(), 3U);
    EXPECT_TRUE(atCall.contains("/com/halvex/vpdd/BP_1"));
    // Both interfaces of the ready object are in the cache.
    EXPECT_TRUE(cached.at("/com/halvex/vpdd/DIMM_32").contains("Size"));
    EXPECT_EQ(countInText(log, "[INFO] matchVpdd completed\n"), 1U);

    // The cache holds every object, with its properties' own types.
    EXPECT_EQ(cached.size(), objects.size());
    const auto& bp1 = cached.at("/com/halvex/vpdd/BP_1");
    EXPECT_EQ(std::get<std::uint8_t>(bp1.at("PosIdValue")), 48);
    EXPECT_EQ(std::get<std::vector<std::string>>(bp1.at("Lanes")),
              (std::vector<std::string>{"A", "B"}));

    // Exactly these names were set, each on the interface of the object's
    // VpdFormat; the daisy card's on Halvex_Fullv3.
    const std::string sets = [&]() {
        std::string lines;
        std::istringstream output(vpdd->standardOutput());
        for (std::string line; std::getline(output, line);)
        {
            if (line.starts_with("set "))
            {
                // Without the stand-in's time stamp.
                lines += line.substr(0, line.rfind(" at ")) + "\n";
            }
        }
        return lines;
    }();
    EXPECT_EQ(sets, "set /com/halvex/vpdd/BP_3 com.halvex.vpdd.Halvex_Fullv3 "
                    "IpmiFruName Front_BP_3\n"
                    "set /com/halvex/vpdd/Riser_1 com.halvex.vpdd.Halvex_Riser "
                    "IpmiFruName PCIe Riser 1\n"
                    "set /com/halvex/vpdd/phy_card_vpd "
                    "com.halvex.vpdd.Halvex_Fullv3 IpmiFruName "
                    "Mgt_Switch_Card\n");
    EXPECT_THAT(log, HasSubstr("[INFO] Update fru name: (/com/halvex/vpdd/"
                               "Riser_1)==>(PCIe Riser 1)\n"));
    EXPECT_THAT(log, HasSubstr("[INFO] Update daisy fru name: (/com/halvex/"
                               "vpdd/phy_card_vpd)==>(Mgt_Switch_Card)\n"
                               "[INFO] Daisy card found,update fru name.\n"));
    // Bad input costs a line and nothing else.
    EXPECT_THAT(log, HasSubstr("[CRITICAL] Failed to update /com/halvex/vpdd/"
                               "BP_bad interface com.halvex.vpdd.Halvex_Fullv3 "
                               "fru name: "));
    EXPECT_THAT(log,
                HasSubstr("[CRITICAL] Failed to update /com/halvex/vpdd/"
                          "Riser_5 interface com.halvex.vpdd.Halvex_Fullv3 "
                          "fru name: "));
    EXPECT_EQ(countInText(log, "[CRITICAL]"), 2U) << log;

    // The calls that write to the service or read its product name.
    CaptureStderr();
    platform->updateProductName();
    platform->updateFruName("/com/halvex/vpdd/Riser_1", "Halvex_Riser",
                            hwtopod::DeviceType::PcieRiser, 3, "");
    platform->updateFruName("/com/halvex/vpdd/Riser_1", "Halvex_Riser",
                            hwtopod::DeviceType::Cpu, 3, "");
    platform->updateFruName("/com/halvex/vpdd/Riser_1", "",
                            hwtopod::DeviceType::PcieRiser, 4, "");
    platform->updateFruName("/com/halvex/vpdd/Riser 1", "Halvex_Riser",
                            hwtopod::DeviceType::PcieRiser, 5, "");
    log = GetCapturedStderr();
    // A format or path the bus cannot take fails the set as any refusal
    // does; the rename's line follows.
    EXPECT_EQ(countInText(log, "[CRITICAL] setPropertyValue failed: "), 2U)
        << log;
    EXPECT_THAT(log,
                HasSubstr("[INFO] Update fru name: "
                          "(/com/halvex/vpdd/Riser_1)==>(PCIe_Riser_4)\n"));
    EXPECT_EQ(platform->getProductName(), "Vantarack KP100");
    EXPECT_THAT(log, HasSubstr("[INFO] MKT Name = Vantarack KP100\n"));
    EXPECT_TRUE(waitForOutput(*vpdd, "set /com/halvex/vpdd/Riser_1 "
                                     "com.halvex.vpdd.Halvex_Riser "
                                     "IpmiFruName PCIe_Riser_3 at "));
    EXPECT_EQ(countInText(vpdd->standardOutput(), "set "), 4U);
}

TEST_F(VpdDiscovery, RestartReadsTheServiceOnceItIsReady)
{
    ::setenv("HWTOPOD_STATUS", "restarted", 1);
    json dimm = fru("DIMM_32", {{"VpdId", typed("y", 0x10)}});
    dimm["hold"] = true;
    json riser = fru("Riser_1", {{"VpdId", typed("y", 0xE0)},
                                 {"VpdLocation", typed("y", 11)}});
    riser["interfaces"] = {
        {"com.halvex.vpdd.Aaa", {{"VpdName", typed("s", "first")}}}};
    // Published before the daemon listens: only the read-out can see them.
    auto vpdd =
        startVpdd({fru("BP_1", {{"VpdId", typed("y", 0x70)}}), riser, dimm},
                  {{"holdAnswer", true}});
    ASSERT_TRUE(waitForOutput(*vpdd, "published /com/halvex/vpdd/Riser_1"));

    std::vector<std::chrono::milliseconds> sleeps;
    auto seams = Platform::Seams{.root = hwtopod::Root(root.path())};
    seams.sleep = [&](std::chrono::milliseconds duration) {
        sleeps.push_back(duration);
        if (sleeps.size() == 3)
        {
            // The service gets ready during the third wait.
            ::kill(vpdd->pid(), SIGUSR1);
            waitForOutput(*vpdd, "published /com/halvex/vpdd/DIMM_32");
            // Its signal waits for the read-out, and starts nothing yet.
            for (bool seen = false; !seen;)
            {
                platform->discoveryWorker->run([&]() {
                    seen = !platform->discovery.signalsAfterReadout.empty();
                });
                std::this_thread::sleep_for(10ms);
            }
        }
    };
    platform = std::make_unique<CountingPlatform>(std::move(seams));
    platform->failFirst = true;

    // While the read-out's answer is held, the signal of an object the
    // answer does not hold reaches the worker: it is kept, after the ready
    // signal that came first.
    std::thread lateSignal([&]() {
        waitForOutput(*vpdd, "call GetManagedObjects");
        platform->discoveryWorker->post([&]() {
            platform->onVpdInterfacesAdded(
                "/com/halvex/vpdd/BP_late",
                {{"com.halvex.vpdd.Halvex_Fullv3", {}}});
        });
        ::kill(vpdd->pid(), SIGUSR2);
    });
    CaptureStderr();
    platform->serviceInit();
    platform->serviceRun();
    // The walk fails: the signals held back for it are handled all the same.
    EXPECT_THROW(platform->waitForVpd(), std::runtime_error);
    lateSignal.join();
    const std::string log = GetCapturedStderr();

    EXPECT_EQ(sleeps, std::vector<std::chrono::milliseconds>(3, 5s));
    EXPECT_EQ(countInText(vpdd->standardOutput(), "call GetManagedObjects"),
              1U);
    ASSERT_EQ(platform->calls(), 2U);
    EXPECT_NE(platform->threads[0], std::this_thread::get_id());
    const auto& atCall = platform->cacheAtCall[0];
    EXPECT_EQ(atCall.size(), 3U);
    EXPECT_TRUE(cache().contains("/com/halvex/vpdd/BP_late"));
    // Among interfaces of one object the first in name order wins.
    EXPECT_EQ(std::get<std::string>(
                  atCall.at("/com/halvex/vpdd/Riser_1").at("VpdName")),
              "first");

    // The early ready signal counts after the read-out, as if it had come
    // then: FRU names are kept in line from now on.
    EXPECT_TRUE(platform->discovery.vpdMatchCompleted);
}

} // namespace
