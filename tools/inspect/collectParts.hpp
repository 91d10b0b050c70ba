#pragma once

// The parts of the inspector's collection: what the journal holds of the
// daemon, and which of its records concern which riser.

#include "common/paths.hpp"

#include <sys/types.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace hwtopod::inspect
{

// The message registry of the daemon's records, installed beside its rule
// files; an empty one, with the reason under errors, when it cannot be read.
nlohmann::json registryMessages(const Root& root, nlohmann::json& errors);

// The Redfish records of the daemon's service this boot: of every process
// it has run, the one given included, each with the process that wrote it
// and its text from the registry.
nlohmann::json journalEvents(pid_t pid, const nlohmann::json& messages,
                             nlohmann::json& errors);

// "ID text" of each record that is a problem.
nlohmann::json problemsOf(const nlohmann::json& events);

// The records that concern one riser: its cables and its location.
nlohmann::json riserIssues(const nlohmann::json& events, unsigned slot,
                           const std::vector<std::string>& names);

// Riser numbers that the FPGA reported and no VPD object confirmed.
std::vector<unsigned> risersOnlyFpgaSaw(const nlohmann::json& events);

// Whether a record says the FPGA did not detect the riser of that name.
bool fpgaMissed(const nlohmann::json& events, const std::string& name);

} // namespace hwtopod::inspect
