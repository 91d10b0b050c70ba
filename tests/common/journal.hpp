#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace hwtopod::test
{

using JournalRecord = std::map<std::string, std::string>;

// Makes sure a systemd-journald runs, starting one when none does.
void ensureJournald();

// Reads back the records written after it was made. Records are matched by
// the writer's process id and must carry REDFISH_MESSAGE_ID.
class JournalReader
{
  public:
    JournalReader();

    // Waits until at least count records of pid are there, or the time-out
    // has passed, and returns those found, oldest first.
    std::vector<JournalRecord> events(
        pid_t pid, std::size_t count,
        std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

    // All records of pid after a short settling wait, for checking that
    // nothing (more) was written.
    std::vector<JournalRecord> settledEvents(
        pid_t pid, std::chrono::milliseconds settle =
                       std::chrono::milliseconds(500)) const;

  private:
    std::string cursor;
};

// "ID args" of each record in order: the id without its registry prefix,
// "<none>" for a record without arguments.
std::vector<std::string> summaries(const std::vector<JournalRecord>& records);

} // namespace hwtopod::test
