#include "simRun.hpp"

#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;

namespace hwtopod::test
{

namespace
{

bool alive(pid_t pid)
{
    return ::kill(pid, 0) == 0 || errno != ESRCH;
}

} // namespace

const std::vector<std::string> healthyVotes = {"Vote com.halvex.hwtopod 1 on",
                                               "Vote com.halvex.hwtopod 1 on"};

void parseProgress(SimRun& run)
{
    static const std::regex started("started (\\S+) pid (\\d+)");
    static const std::regex sandbox("sandbox (\\S+)");
    std::smatch match;
    std::istringstream lines(run.progress);
    std::string line;
    while (std::getline(lines, line))
    {
        if (std::regex_search(line, match, started))
        {
            run.pids.push_back(std::stoi(match[2]));
        }
        else if (std::regex_search(line, match, sandbox))
        {
            run.sandbox = match[1];
        }
    }
}

Process simulator(const std::vector<std::string>& arguments)
{
    return Process(sourceRoot() / "scripts/simulate.sh", arguments,
                   {{"HWTOPOD_BUILD_DIR", buildRoot().string()},
                    {"HWTOPOD_SIM_TIMEOUT", "90"}});
}

const SimRun& simulate(const std::string& scenario)
{
    static std::map<std::string, SimRun> runs;
    auto found = runs.find(scenario);
    if (found != runs.end())
    {
        return found->second;
    }
    SimRun run;
    {
        auto process = simulator({"--json", scenario});
        run.exitStatus = process.waitForExit(std::chrono::minutes(4));
        run.progress = process.standardError();
        const auto out = process.standardOutput();
        run.report = json::parse(out, nullptr, false);
    }
    parseProgress(run);
    // Checked here, so that no scenario's test can leave it out.
    EXPECT_EQ(run.exitStatus, 0) << run.progress;
    expectNothingLeft(run);
    return runs.emplace(scenario, std::move(run)).first->second;
}

void expectNothingLeft(const SimRun& run)
{
    EXPECT_FALSE(run.pids.empty()) << run.progress;
    for (const auto pid : run.pids)
    {
        EXPECT_FALSE(alive(pid)) << "process " << pid << " still runs";
    }
    ASSERT_FALSE(run.sandbox.empty()) << run.progress;
    EXPECT_FALSE(std::filesystem::exists(run.sandbox)) << run.sandbox;
}

Events events(const json& report, bool problemsOnly)
{
    Events result;
    for (const auto& event : report["events"])
    {
        if (!problemsOnly || event["problem"].get<bool>())
        {
            result.emplace(event["id"].get<std::string>(),
                           event["args"].is_null()
                               ? "<none>"
                               : event["args"].get<std::string>());
        }
    }
    return result;
}

Events problems(const json& report)
{
    return events(report, true);
}

std::vector<std::string> votes(const json& report)
{
    return report["simulation"]["votes"].get<std::vector<std::string>>();
}

std::string log(const json& report)
{
    std::string text;
    for (const auto& line : report["simulation"]["daemonLog"])
    {
        text += line.get<std::string>() + "\n";
    }
    return text;
}

const json* riser(const json& report, unsigned number)
{
    for (const auto& entry : report["risers"])
    {
        if (entry["riser"] == number)
        {
            return &entry;
        }
    }
    return nullptr;
}

std::size_t records(const json& report, const std::string& file,
                    const std::string& key)
{
    const auto& content = report["resultFiles"][file];
    return content.is_null() ? 0 : content[key].size();
}

const json& healthyReport()
{
    static const json report = json::parse(
        std::ifstream(sourceRoot() / "tests/sim/healthy-inspect.json"));
    return report;
}

void expectHealthyMachine(const json& report,
                          const std::vector<std::string>& expectedVotes)
{
    const auto& healthy = healthyReport();
    EXPECT_EQ(events(report), events(healthy));
    EXPECT_THAT(report["problems"], IsEmpty());
    EXPECT_EQ(records(report, "risers_found.json", "risers"), 4U);
    EXPECT_EQ(records(report, "backplanes_found.json", "backplanes"), 3U);
    EXPECT_TRUE(report["resultFiles"]["midplanes_found.json"].is_null());
    ASSERT_EQ(report["risers"].size(), 4U);
    for (const auto& entry : report["risers"])
    {
        EXPECT_EQ(entry["cable"], "ok") << entry.dump();
        EXPECT_EQ(entry["location"], "ok") << entry.dump();
        EXPECT_EQ(entry["seenBy"], "FPGA and VPD");
    }
    EXPECT_EQ(report["platform"]["BackplaneStatus"],
              healthy["platform"]["BackplaneStatus"]);
    EXPECT_EQ(votes(report), expectedVotes);
    // No step failed; a failed client call of a peer that is absent is
    // logged in words of its own.
    EXPECT_THAT(log(report), testing::Not(HasSubstr("Exception in")));
}

} // namespace hwtopod::test
