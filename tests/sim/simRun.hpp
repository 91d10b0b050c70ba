#pragma once

// Runs of the simulator command on shipped scenarios, and what the tests of
// those scenarios read from its JSON report.

#include "process.hpp"

#include <sys/types.h>

#include <nlohmann/json.hpp>

#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace hwtopod::test
{

using Events = std::multiset<std::pair<std::string, std::string>>;

// What one run of the simulator left: its report, its progress lines, and
// the processes and sandbox it said it made.
struct SimRun
{
    int exitStatus = -1;
    nlohmann::json report;
    std::string progress;
    std::vector<pid_t> pids;
    std::string sandbox;
};

// The simulator command with the build under test.
Process simulator(const std::vector<std::string>& arguments);

// Reads the processes and the sandbox that the progress lines name.
void parseProgress(SimRun& run);

// One simulator run per scenario, shared by the tests of that scenario; the
// first of them fails unless the run ended well and left nothing behind.
const SimRun& simulate(const std::string& scenario);

// Every process the run started has ended, and its sandbox is gone.
void expectNothingLeft(const SimRun& run);

// Event ids with their arguments ("<none>" for none); problems only.
Events events(const nlohmann::json& report, bool problemsOnly = false);
Events problems(const nlohmann::json& report);

// The votes the power management stand-in received, in order.
std::vector<std::string> votes(const nlohmann::json& report);

// The daemon's log, one line each.
std::string log(const nlohmann::json& report);

// The riser entry of the report with that number, or null.
const nlohmann::json* riser(const nlohmann::json& report, unsigned number);

// Records under key in a result file; 0 for a file that is not there.
std::size_t records(const nlohmann::json& report, const std::string& file,
                    const std::string& key);

// The report of the healthy machine as built, kept with the tests.
const nlohmann::json& healthyReport();

extern const std::vector<std::string> healthyVotes;

// What every healthy machine publishes, whatever the way VPD arrived.
void expectHealthyMachine(
    const nlohmann::json& report,
    const std::vector<std::string>& expectedVotes = healthyVotes);

} // namespace hwtopod::test
