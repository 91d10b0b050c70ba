#pragma once

// hwtopod-inspect: collects what the topology daemon publishes (its D-Bus
// objects, its result files, its I2C links and its journal records) into one
// JSON document, and renders that document as text.

#include "common/paths.hpp"

#include <sys/types.h>

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace hwtopod::inspect
{

struct Options
{
    bool json = false;
    std::string service = "com.halvex.hwtopod";
    // The daemon's process; found on the bus when not given.
    std::optional<pid_t> pid;
    // Where the daemon's files are: the root that HWTOPOD_ROOT names.
    Root root = Root::fromEnvironment();
};

// Everything known of the daemon and the machine; parts that could not be
// read are null and say why under "errors". What makes the report unfit to
// rely on (the daemon not on the bus, a result file there but unreadable) is
// also listed under "failures".
nlohmann::json collect(const Options& options);

// The readable picture of a collected document.
std::string render(const nlohmann::json& document);

// A record's message from its entry in the event message registry, %1 to %n
// replaced by its arguments; without an entry, the arguments as they are.
std::string describeEvent(const nlohmann::json& message,
                          const std::vector<std::string>& args);

} // namespace hwtopod::inspect
