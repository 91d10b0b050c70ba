#pragma once

// hwtopod-inspect: collects what the topology daemon publishes (its D-Bus
// objects, its result files, its I2C links and its journal records) into one
// JSON document, and renders that document as text.

#include <sys/types.h>

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace hwtopod::inspect
{

struct Options
{
    bool json = false;
    std::string service = "com.halvex.hwtopod";
    // The daemon's process; found on the bus when not given.
    std::optional<pid_t> pid;
};

// Everything known of the daemon and the machine; parts that could not be
// read are null and say why under "errors".
nlohmann::json collect(const Options& options);

// The readable picture of a collected document.
std::string render(const nlohmann::json& document);

// A journal record's arguments as a readable sentence, from its short id.
std::string describeEvent(const std::string& id,
                          const std::vector<std::string>& args);

// Whether an event reports a problem rather than a plain fact.
bool isProblem(const std::string& id);

} // namespace hwtopod::inspect
