// Faults injected through the simulator command: peers that are absent,
// crash, answer wrongly or come late; no journald; a result directory that
// refuses writes; broken rule files and register images; a bus name held by
// another process; a flood of signals. Whatever the fault, the daemon keeps
// serving (or ends cleanly where it cannot serve), the result files on disk
// stay whole JSON, and what it found is not lost.

#include "simRun.hpp"

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using namespace hwtopod::test;

namespace
{

// The daemon still owns its name when the report is taken, and every result
// file there parses whole.
void expectStillServing(const json& report)
{
    EXPECT_EQ(report["service"]["onBus"], true);
    EXPECT_THAT(report["errors"], IsEmpty());
    EXPECT_THAT(log(report), Not(HasSubstr("Exception in io running")));
}

// Risers the FPGA reports are kept as it reported them, each with its
// install event.
void expectFpgaRisersKept(const json& report)
{
    for (const auto slot : {"1", "3", "4", "5"})
    {
        EXPECT_EQ(report["devicePresence"]
                        [std::string("RISER_") + slot + "_INSTALLED"],
                  true);
        EXPECT_EQ(events(report).count({"TKRMBIO0032I", std::string("Slot::") +
                                                            slot + " Riser"}),
                  1U);
    }
}

json scenarioFile(const std::string& scenario, const std::string& file)
{
    return json::parse(
        readFile(sourceRoot() / "sim/scenarios" / scenario / file));
}

} // namespace

TEST(Faults, VpdServiceThatNeverComes)
{
    const auto& report = simulate("vpd-absent").report;
    expectStillServing(report);
    // No board is confirmed, none is doubted before the VPD has come, and
    // nothing is voted.
    expectFpgaRisersKept(report);
    EXPECT_THAT(report["risers"], IsEmpty());
    EXPECT_THAT(report["problems"], IsEmpty());
    EXPECT_TRUE(report["resultFiles"]["risers_found.json"].is_null());
    EXPECT_THAT(votes(report), IsEmpty());
}

TEST(Faults, VpdServiceCrashesHalfwayAndComesBack)
{
    const auto& report = simulate("vpd-crash").report;
    expectStillServing(report);
    EXPECT_THAT(report["simulation"]["vpdd"].dump(), HasSubstr("crashing"));
    // The objects of the first run and of the second make one machine: each
    // board once, each event once.
    expectHealthyMachine(report);
}

TEST(Faults, VpdPropertiesOfTheWrongType)
{
    const auto& report = simulate("vpd-wrong-types").report;
    expectStillServing(report);
    // CPU 2's name that is no string ends the probe of that object alone.
    EXPECT_THAT(log(report), HasSubstr("Exception in probeCachedVpdd for VPDD "
                                       "path /com/halvex/vpdd/CPU_2: "));
    // A riser and a backplane whose numbers are strings match no rule.
    EXPECT_EQ(problems(report),
              (Events{{"TKRMBSS0012G", "BMC::Slot 1 Riser"}}));
    EXPECT_EQ(records(report, "risers_found.json", "risers"), 3U);
    EXPECT_EQ(records(report, "backplanes_found.json", "backplanes"), 2U);
    EXPECT_EQ(votes(report), healthyVotes);
}

TEST(Faults, BurstOfTenThousandSignals)
{
    const auto& report = simulate("vpd-burst").report;
    expectStillServing(report);
    EXPECT_THAT(report["simulation"]["vpdd"].dump(), HasSubstr("burst 10000"));
    // Every signal was taken, none dropped, and the boards are found.
    EXPECT_EQ(countInText(log(report),
                          "Get interface com.halvex.vpdd.Burst update on path: "
                          "/com/halvex/vpdd/BURST_"),
              10000U);
    expectHealthyMachine(report);
}

TEST(Faults, PowerManagementAbsentOrRefusing)
{
    const auto& absent = simulate("pwrmgt-absent").report;
    expectStillServing(absent);
    EXPECT_EQ(countInText(log(absent), "power permission Exception:"), 2U);
    expectHealthyMachine(absent, {});

    const auto& refusing = simulate("pwrmgt-refuses").report;
    expectStillServing(refusing);
    EXPECT_EQ(countInText(log(refusing),
                          "power vote for vote id(1) fail, vote value: on"),
              2U);
    expectHealthyMachine(refusing);
}

TEST(Faults, LiquidCoolingServiceComesLate)
{
    const auto& report = simulate("cooling-late").report;
    expectStillServing(report);
    const auto text = log(report);
    const auto failed = text.find("setLiquidCooling failed: ");
    const auto called = text.find("setLiquidCooling called successfully!");
    ASSERT_NE(failed, std::string::npos);
    ASSERT_NE(called, std::string::npos);
    EXPECT_LT(failed, called);
    EXPECT_EQ(report["simulation"]["coolingCalls"],
              json::array({"CreateSensors 0"}));
    expectHealthyMachine(report);
}

TEST(Faults, NoJournald)
{
    const auto& report = simulate("no-journal").report;
    expectStillServing(report);
    EXPECT_THAT(report["events"], IsEmpty());
    // The lost records leave no trace in the log either.
    for (const char* level : {"[ERROR]", "[CRITICAL]"})
    {
        EXPECT_EQ(countInText(log(report), level),
                  countInText(log(simulate("healthy").report), level))
            << level;
    }
    // Discovery, objects and files are those of a healthy machine.
    EXPECT_EQ(records(report, "risers_found.json", "risers"), 4U);
    EXPECT_EQ(records(report, "backplanes_found.json", "backplanes"), 3U);
    for (const auto& entry : report["risers"])
    {
        EXPECT_EQ(entry["seenBy"], "FPGA and VPD");
    }
    EXPECT_EQ(votes(report), healthyVotes);
}

TEST(Faults, ResultDirectoryReadOnlyOrFull)
{
    const auto earlierRisers =
        scenarioFile("configuration-read-only", "risers_found.json");
    const auto earlierBackplanes =
        scenarioFile("configuration-read-only", "backplanes_found.json");
    for (const char* scenario :
         {"configuration-read-only", "configuration-full"})
    {
        SCOPED_TRACE(scenario);
        const auto& report = simulate(scenario).report;
        expectStillServing(report);
        const auto text = log(report);
        EXPECT_EQ(countInText(text, "hwtopod cannot write data at "
                                    "/var/configuration/risers_found.json"),
                  4U);
        EXPECT_EQ(countInText(text, "hwtopod cannot write data at "
                                    "/var/configuration/backplanes_found.json"),
                  3U);
        // The earlier files stay as they were, and every board is published
        // and recorded as on a healthy machine.
        EXPECT_EQ(report["resultFiles"]["risers_found.json"], earlierRisers);
        EXPECT_EQ(report["resultFiles"]["backplanes_found.json"],
                  earlierBackplanes);
        ASSERT_EQ(report["risers"].size(), 4U);
        for (const auto& entry : report["risers"])
        {
            EXPECT_TRUE(entry["path"].is_string()) << entry.dump();
        }
        EXPECT_EQ(
            events(report).count({"TKRMBIO0034I", "PWR_15::Slot::5 Riser"}),
            1U);
    }
}

TEST(Faults, EveryRuleFileBroken)
{
    for (const char* scenario :
         {"rules-truncated", "rules-empty", "rules-wrong-shape"})
    {
        SCOPED_TRACE(scenario);
        const auto& report = simulate(scenario).report;
        expectStillServing(report);
        const auto text = log(report);
        EXPECT_THAT(text, HasSubstr("Exception in initPsuConfigs : "
                                    "psuConfigFiles "));
        EXPECT_THAT(text, HasSubstr("Exception in loadTrd : bpTrdRules "));
        // A riser file of the wrong shape loads, and holds no rule.
        EXPECT_EQ(text.find("Exception in loadTrd : risersFile ") !=
                      std::string::npos,
                  std::string(scenario) != "rules-wrong-shape");
        EXPECT_THAT(text, HasSubstr("[Base::matchVpdd] TRD files are not "
                                    "loaded"));
        EXPECT_TRUE(report["resultFiles"]["risers_found.json"].is_null());
        EXPECT_TRUE(report["resultFiles"]["backplanes_found.json"].is_null());
        expectFpgaRisersKept(report);
    }
}

TEST(Faults, RegisterImageCutShort)
{
    const auto& report = simulate("register-image-truncated").report;
    expectStillServing(report);
    // Past its end the image reads as zero: the FPGA reports no riser, and
    // VPD alone finds them.
    EXPECT_EQ(report["devicePresence"]["RISER_1_INSTALLED"], false);
    EXPECT_EQ(problems(report),
              (Events{{"TKRMBSS0012G", "FPGA::PCIe_Riser_1"},
                      {"TKRMBSS0012G", "FPGA::PCIe_Riser_3"},
                      {"TKRMBSS0012G", "FPGA::PCIe_Riser_4"},
                      {"TKRMBSS0012G", "FPGA::PCIe_Riser_5"}}));
    ASSERT_EQ(report["risers"].size(), 4U);
    for (const auto& entry : report["risers"])
    {
        EXPECT_EQ(entry["seenBy"], "VPD only") << entry.dump();
    }
    EXPECT_EQ(records(report, "risers_found.json", "risers"), 4U);
}

TEST(Faults, BusNameHeldByAnotherProcess)
{
    // The simulator checks that the daemon ended with status 1.
    const auto& report = simulate("name-held").report;
    EXPECT_EQ(report["simulation"]["daemonExit"], 1);
    EXPECT_THAT(log(report),
                HasSubstr("Exception in serviceInit: the name "
                          "com.halvex.hwtopod is owned by another process"));
}
