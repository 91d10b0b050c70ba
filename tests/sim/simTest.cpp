// The shipped machine scenarios run through the simulator command, each
// once: the real daemon on a private bus with the stand-in services, its
// report read back as JSON and held against what that machine must produce.
// Every run must leave no process and no sandbox behind.

#include "simRun.hpp"

#include <signal.h>

#include <algorithm>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using nlohmann::json;
using testing::Contains;
using testing::HasSubstr;
using namespace hwtopod::test;

// The healthy machine as built: its whole report, less what differs from
// run to run, against the inspect document kept with the tests.
TEST(Simulator, HealthyMachineIsFoundAsBuilt)
{
    auto report = simulate("healthy").report;
    expectHealthyMachine(report);
    EXPECT_TRUE(report["simulation"]["gpioStandIn"].get<bool>());
    EXPECT_EQ(report["simulation"]["coolingCalls"],
              json::array({"CreateSensors 0"}));

    // Each FRU gets the name of its record; the daisy card its own. The rear
    // M.2 backplane keeps its FRU name only when its id is 0; this one has
    // id 5 and is renamed.
    const auto vpdd = report["simulation"]["vpdd"].dump();
    for (const auto& [fru, name] :
         std::vector<std::pair<std::string, std::string>>{
             {"RISER_1", "PCIe_Riser_1"},
             {"RISER_5", "PCIe_Riser_5"},
             {"BP_2", "Backplane_2"},
             {"phy_card_vpd", "Mgt_Switch_Card"},
             {"REAR_BP", "Backplane_5"}})
    {
        EXPECT_THAT(vpdd, HasSubstr("set /com/halvex/vpdd/" + fru +
                                    " com.halvex.vpdd.Halvex_Fullv3 "
                                    "IpmiFruName " +
                                    name));
    }

    // What differs from run to run: the process, the sandbox, the order in
    // which the daemon's threads wrote their records.
    report.erase("simulation");
    report["service"]["pid"] = nullptr;
    for (auto& event : report["events"])
    {
        event.erase("pid");
    }
    const std::regex sandbox("^.*/root/sys/");
    auto unsandbox = [&sandbox](json& i2c) {
        i2c["target"] = std::regex_replace(i2c["target"].get<std::string>(),
                                           sandbox, "/sys/");
    };
    for (auto& entry : report["risers"])
    {
        for (auto& slot : entry["slots"])
        {
            unsandbox(slot["i2c"]);
        }
    }
    for (auto& bp : report["backplanes"])
    {
        unsandbox(bp["i2c"]);
    }
    auto byId = [](const json& a, const json& b) {
        return std::make_pair(a["id"].dump(), a["args"].dump()) <
               std::make_pair(b["id"].dump(), b["args"].dump());
    };
    std::sort(report["events"].begin(), report["events"].end(), byId);
    EXPECT_EQ(report, healthyReport()) << report.dump(2);
}

TEST(Simulator, NewRiserWithACableOnTheWrongConnector)
{
    const auto& report = simulate("cable-new-riser").report;
    // The FPGA's map judges a new riser's cables; VPD adds no event.
    EXPECT_EQ(problems(report),
              (Events{{"TKRMBIO0041G",
                       "CEMB::PCIe Slot 4::PCIE6_CEMB::PCIE8_CEMB"}}));
    const auto text = log(report);
    EXPECT_THAT(text, HasSubstr("Riser 4 for PCIe slot 4 configuration is "
                                "mismatched, connectors error"));
    EXPECT_THAT(text, HasSubstr(" Signal cable of old PCIe_Riser_4 is "
                                "misconnected, should connect "
                                "CEMA::MCIO_4A::CEMB::MCIO_4B"));
    ASSERT_NE(riser(report, 4), nullptr);
    EXPECT_TRUE((*riser(report, 4))["cable"].is_array());
    EXPECT_EQ((*riser(report, 5))["cable"], "ok");
    EXPECT_EQ(records(report, "risers_found.json", "risers"), 4U);
}

TEST(Simulator, OldRiserWithItsCableMisconnected)
{
    const auto& report = simulate("cable-old-riser").report;
    // An old riser's cable is judged against its rule record.
    EXPECT_EQ(problems(report),
              (Events{{"TKRMBIO0037G", "PCIe_Riser_5::to MCIO_5"}}));
    EXPECT_THAT(log(report),
                HasSubstr(" Signal cable of old PCIe_Riser_5 is misconnected, "
                          "should connect to MCIO_5"));
    EXPECT_THAT(log(report), HasSubstr("Riser 5:Prsnt:1,Old. PCIe:5"));
    ASSERT_NE(riser(report, 5), nullptr);
    EXPECT_TRUE((*riser(report, 5))["cable"].is_array());
}

TEST(Simulator, RiserThatOnlyTheFpgaSees)
{
    const auto& report = simulate("riser-fpga-only").report;
    EXPECT_EQ(problems(report),
              (Events{{"TKRMBSS0012G", "BMC::Slot 3 Riser"}}));
    EXPECT_THAT(log(report), HasSubstr("BMC didn't detect PCIe Riser 3"));
    EXPECT_EQ(records(report, "risers_found.json", "risers"), 3U);
    ASSERT_NE(riser(report, 3), nullptr);
    EXPECT_EQ((*riser(report, 3))["seenBy"], "FPGA only");
    EXPECT_TRUE((*riser(report, 3))["path"].is_null());
    // The FPGA's presence stands, and its install event.
    EXPECT_EQ(report["devicePresence"]["RISER_3_INSTALLED"], true);
    EXPECT_EQ(events(report).count({"TKRMBIO0032I", "Slot::3 Riser"}), 1U);
    EXPECT_EQ(events(report).count({"TKRMBIO0034I", "PWR_13::Slot::3 Riser"}),
              0U);
}

TEST(Simulator, SecondCpuDifferentFromTheFirst)
{
    const auto& report = simulate("cpu2-differs").report;
    EXPECT_EQ(problems(report),
              (Events{{"TKRMBPU0009N", "2"}, {"TKRMBPU0015G", ""}}));
    EXPECT_EQ(votes(report),
              (std::vector<std::string>{"Vote com.halvex.hwtopod 1 on",
                                        "Vote com.halvex.hwtopod 1 on",
                                        "Vote com.halvex.hwtopod 1 off"}));
    EXPECT_THAT(log(report),
                HasSubstr("CPU 2 installed and different to CPU 1, set CPU 2 "
                          "configuration mismatch"));
    // Boards are found as on a healthy machine.
    EXPECT_EQ(records(report, "risers_found.json", "risers"), 4U);
}

TEST(Simulator, FirstCpuMissing)
{
    const auto& report = simulate("cpu1-missing").report;
    EXPECT_EQ(problems(report), (Events{{"TKRMBPU0009N", "1"}}));
    // One vote on for CPU 1's object, then off; none after.
    EXPECT_EQ(votes(report),
              (std::vector<std::string>{"Vote com.halvex.hwtopod 1 on",
                                        "Vote com.halvex.hwtopod 1 off"}));
    EXPECT_THAT(log(report), HasSubstr("CPU 2 is installed but no CPU 1"));
    EXPECT_EQ(report["devicePresence"]["CPU_1"], false);
    EXPECT_EQ(report["devicePresence"]["CPU_2"], true);
}

TEST(Simulator, RestartReadsTheObjectsThatExist)
{
    // Started twice, killed once discovery had ended: the report holds the
    // records of both processes, the killed one's first, each start's the
    // same, and each start votes.
    const auto& both = simulate("restart").report;
    auto report = both;
    json earlier;
    report["events"] = earlier["events"] = json::array();
    for (const auto& event : both["events"])
    {
        const bool last = event["pid"] == both["service"]["pid"];
        ASSERT_TRUE(last || report["events"].empty()) << both["events"];
        (last ? report : earlier)["events"].push_back(event);
    }
    EXPECT_EQ(events(earlier), events(report));
    auto votes = healthyVotes;
    votes.insert(votes.end(), healthyVotes.begin(), healthyVotes.end());
    expectHealthyMachine(report, votes);
    const auto text = log(report);
    EXPECT_THAT(text, HasSubstr("hwtopod is restarted"));
    EXPECT_THAT(text, testing::Not(HasSubstr("matchVpdd completed")));
    EXPECT_THAT(report["simulation"]["vpdd"],
                Contains("call GetManagedObjects"));
    // The VPD service was up when the platform facts were published.
    EXPECT_EQ(report["platform"]["HardwareRevision"], 2);
}

TEST(Simulator, RestartWaitsForALateVpdService)
{
    const auto& report = simulate("vpd-late").report;
    expectHealthyMachine(report);
    // The service comes 12 s after the daemon, which asks every 5 s.
    EXPECT_GE(countInText(log(report), "VPDD is not ready, delay 5 seconds"),
              2U);
    EXPECT_THAT(report["simulation"]["vpdd"],
                Contains("call GetManagedObjects"));
}

TEST(Simulator, BrokenRiserRuleFile)
{
    const auto& report = simulate("broken-rule-file").report;
    EXPECT_THAT(log(report), HasSubstr("Exception in loadTrd : risersFile "));
    EXPECT_THAT(log(report), HasSubstr("hwtopod TRD files are not loaded "));
    // Backplanes are found; every riser the FPGA saw stays unconfirmed.
    EXPECT_EQ(records(report, "backplanes_found.json", "backplanes"), 3U);
    EXPECT_TRUE(report["resultFiles"]["risers_found.json"].is_null());
    EXPECT_EQ(problems(report),
              (Events{{"TKRMBSS0012G", "BMC::Slot 1 Riser"},
                      {"TKRMBSS0012G", "BMC::Slot 3 Riser"},
                      {"TKRMBSS0012G", "BMC::Slot 4 Riser"},
                      {"TKRMBSS0012G", "BMC::Slot 5 Riser"}}));
    for (unsigned number : {1U, 3U, 4U, 5U})
    {
        ASSERT_NE(riser(report, number), nullptr);
        EXPECT_EQ((*riser(report, number))["seenBy"], "FPGA only");
    }
}

TEST(Simulator, FaultStandingAtStartAndThermalTripEdges)
{
    const auto& report = simulate("fault-at-start").report;
    const auto text = log(report);
    // The register image reports the standing fault; the edges come through
    // the GPIO library stand-in to the production monitor.
    EXPECT_THAT(text, HasSubstr("powerFaultDetect: bit VR_FAULT_3_N error"));
    EXPECT_THAT(text, HasSubstr(" Another edge come for CPU1_THERMTRIP"));
    // The trip's rising edge is read first, as it came, and as a rising one.
    const auto first = text.find("CPU1_THERMTRIP (#");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(text[text.find('\n', first) - 1], '1') << text.substr(first, 60);
    EXPECT_EQ(problems(report), (Events{{"TKRMBPW0131N", "12V_PCIE_PWR1"},
                                        {"TKRMBPU0001N", "1::"}}));
    EXPECT_EQ(events(report).count({"TKRMBPU2001I", "1::"}), 1U);
}

TEST(Simulator, NothingIsLeftWhenTheDaemonDies)
{
    auto process = simulator({"healthy"});
    ASSERT_TRUE(
        process.waitForLog("started hwtopod pid", std::chrono::seconds(60)))
        << process.standardError();
    SimRun run;
    run.progress = process.standardError();
    parseProgress(run);
    ::kill(run.pids.back(), SIGKILL);
    EXPECT_EQ(process.waitForExit(std::chrono::seconds(60)), 1);
    run.progress = process.standardError();
    EXPECT_THAT(run.progress, HasSubstr("hwtopod ended while waiting"));
    EXPECT_EQ(process.standardOutput(), "");
    expectNothingLeft(run);
}

TEST(Simulator, NothingIsLeftAfterAnInterrupt)
{
    auto process = simulator({"vpd-late"});
    ASSERT_TRUE(
        process.waitForLog("started vpdd pid", std::chrono::seconds(60)))
        << process.standardError();
    ::kill(process.pid(), SIGINT);
    EXPECT_EQ(process.waitForExit(std::chrono::seconds(60)), 130);
    SimRun run;
    run.progress = process.standardError();
    parseProgress(run);
    EXPECT_GE(run.pids.size(), 5U) << run.progress;
    expectNothingLeft(run);
}

TEST(Simulator, UnknownScenarioIsRefused)
{
    auto process = simulator({"no-such-machine"});
    EXPECT_EQ(process.waitForExit(std::chrono::seconds(30)), 2);
    EXPECT_THAT(process.standardError(),
                HasSubstr("no scenario no-such-machine"));
}
