#include "logging.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace hwtopod
{

namespace
{
constexpr auto prefixes = std::to_array<std::string_view>(
    {"[DEBUG]", "[INFO]", "[WARNING]", "[ERROR]", "[CRITICAL]", "[DISABLED]"});
// One prefix a level, in the order of LogLevel.
static_assert(prefixes.size() ==
              static_cast<std::size_t>(LogLevel::disabled) + 1);

// The journal's priorities of the levels, as the "<N>" that its stream
// protocol reads at the start of a line. Debug and disabled, which the
// daemon does not use, are given the debug priority.
constexpr auto priorities =
    std::to_array<std::string_view>({"<7>", "<6>", "<4>", "<3>", "<2>", "<7>"});
static_assert(priorities.size() == prefixes.size());

// A decimal number of a JOURNAL_STREAM field, all of it.
bool parseField(std::string_view text, std::uint64_t& value)
{
    const auto* end = text.data() + text.size();
    const auto [next, error] = std::from_chars(text.data(), end, value);
    return !text.empty() && error == std::errc() && next == end;
}

// The service manager sets JOURNAL_STREAM to "device:inode" of the stream
// it connected to standard error. Only when fd 2 is still that stream do
// the lines carry priorities: a terminal, pipe or file, also one a child of
// such a service inherits the variable with, gets the text alone.
bool stderrIsJournal()
{
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr)
    {
        return false;
    }
    const std::string_view text(stream);
    const auto colon = text.find(':');
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    struct stat status
    {};
    if (colon == std::string_view::npos ||
        !parseField(text.substr(0, colon), device) ||
        !parseField(text.substr(colon + 1), inode) ||
        ::fstat(STDERR_FILENO, &status) != 0)
    {
        return false;
    }
    return static_cast<std::uint64_t>(status.st_dev) == device &&
           static_cast<std::uint64_t>(status.st_ino) == inode;
}
} // namespace

std::string_view logPrefix(LogLevel level)
{
    auto index = static_cast<std::size_t>(level);
    return index < prefixes.size() ? prefixes[index] : prefixes.back();
}

LogLine::LogLine(LogLevel level)
{
    // Decided once: the daemon never changes its standard error.
    static const bool journal = stderrIsJournal();
    // Most lines fit, so the text is allocated once.
    text.reserve(128);
    if (journal)
    {
        const auto index = static_cast<std::size_t>(level);
        text += priorities[index < priorities.size() ? index
                                                     : priorities.size() - 1];
    }
    text += logPrefix(level);
    text += ' ';
}

LogLine::~LogLine()
{
    text += '\n';
    // Written straight to the descriptor: a stream would keep a failed
    // write as sticky state and drop every later line of every thread. A
    // failed write costs this line alone; there is nowhere to report it.
    std::size_t written = 0;
    while (written < text.size())
    {
        const auto result = ::write(STDERR_FILENO, text.data() + written,
                                    text.size() - written);
        if (result < 0 && errno == EINTR)
        {
            continue;
        }
        if (result <= 0)
        {
            return;
        }
        written += static_cast<std::size_t>(result);
    }
}

} // namespace hwtopod
