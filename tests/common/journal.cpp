#include "journal.hpp"

#include "events/journalRecords.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <thread>

namespace hwtopod::test
{

namespace
{
constexpr auto journalSocket = "/run/systemd/journal/socket";

std::vector<JournalRecord> readAfter(const std::string& cursor, pid_t pid)
{
    sd_journal* journal = nullptr;
    if (sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY) < 0)
    {
        throw std::runtime_error("sd_journal_open failed");
    }
    std::vector<JournalRecord> records;
    const std::string pidMatch = "_PID=" + std::to_string(pid);
    sd_journal_add_match(journal, pidMatch.c_str(), 0);
    if (cursor.empty())
    {
        sd_journal_seek_head(journal);
    }
    else
    {
        sd_journal_seek_cursor(journal, cursor.c_str());
    }
    while (sd_journal_next(journal) > 0)
    {
        if (!cursor.empty() &&
            sd_journal_test_cursor(journal, cursor.c_str()) > 0)
        {
            continue;
        }
        JournalRecord record = recordFields(journal);
        if (record.contains("REDFISH_MESSAGE_ID"))
        {
            records.push_back(std::move(record));
        }
    }
    sd_journal_close(journal);
    return records;
}

// A journald that has gone (a machine whose processes were all ended) leaves
// its socket file behind, so only a connect tells whether one listens.
bool journaldListens()
{
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
    {
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, journalSocket, sizeof(address.sun_path) - 1);
    bool listens = connect(fd, reinterpret_cast<sockaddr*>(&address),
                           sizeof(address)) == 0;
    close(fd);
    return listens;
}
} // namespace

void ensureJournald()
{
    if (journaldListens())
    {
        return;
    }
    pid_t pid = fork();
    if (pid == 0)
    {
        // It outlives the test, so it must not hold the test runner's
        // output pipes open.
        setsid();
        int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(devNull, STDIN_FILENO);
        dup2(devNull, STDOUT_FILENO);
        dup2(devNull, STDERR_FILENO);
        execl("/lib/systemd/systemd-journald", "systemd-journald",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 500 && !journaldListens(); ++i)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!journaldListens())
    {
        throw std::runtime_error("systemd-journald did not start");
    }
}

JournalReader::JournalReader()
{
    ensureJournald();
    sd_journal* journal = nullptr;
    if (sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY) < 0)
    {
        throw std::runtime_error("sd_journal_open failed");
    }
    if (sd_journal_seek_tail(journal) >= 0 && sd_journal_previous(journal) > 0)
    {
        char* text = nullptr;
        if (sd_journal_get_cursor(journal, &text) >= 0)
        {
            cursor = text;
            free(text);
        }
    }
    sd_journal_close(journal);
}

std::vector<JournalRecord> JournalReader::events(
    pid_t pid, std::size_t count, std::chrono::milliseconds timeout) const
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true)
    {
        auto records = readAfter(cursor, pid);
        if (records.size() >= count ||
            std::chrono::steady_clock::now() > deadline)
        {
            return records;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

std::vector<JournalRecord> JournalReader::settledEvents(
    pid_t pid, std::chrono::milliseconds settle) const
{
    std::this_thread::sleep_for(settle);
    return readAfter(cursor, pid);
}

std::vector<std::string> summaries(const std::vector<JournalRecord>& records)
{
    std::vector<std::string> result;
    for (const auto& record : records)
    {
        const auto id = shortEventId(record.at("REDFISH_MESSAGE_ID"));
        const auto args = record.find("REDFISH_MESSAGE_ARGS");
        result.push_back(
            id + " " + (args == record.end() ? "<none>" : args->second));
    }
    return result;
}

} // namespace hwtopod::test
