#pragma once

// Reading Redfish records back from the journal.

#include <systemd/sd-journal.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace hwtopod
{

using JournalFields = std::map<std::string, std::string>;

// The fields of the journal's current record.
JournalFields recordFields(sd_journal* journal);

// A record's REDFISH_MESSAGE_ARGS, split at the separator the emitters join
// them with.
std::vector<std::string> splitEventArguments(std::string_view text);

// A REDFISH_MESSAGE_ID without the registry's prefix.
std::string shortEventId(std::string_view fullId);

} // namespace hwtopod
