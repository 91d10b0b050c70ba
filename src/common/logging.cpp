#include "logging.hpp"

#include <unistd.h>

#include <array>
#include <cerrno>

namespace hwtopod
{

namespace
{
constexpr auto prefixes = std::to_array<std::string_view>(
    {"[DEBUG]", "[INFO]", "[WARNING]", "[ERROR]", "[CRITICAL]", "[DISABLED]"});
// One prefix a level, in the order of LogLevel.
static_assert(prefixes.size() ==
              static_cast<std::size_t>(LogLevel::disabled) + 1);
} // namespace

std::string_view logPrefix(LogLevel level)
{
    auto index = static_cast<std::size_t>(level);
    return index < prefixes.size() ? prefixes[index] : prefixes.back();
}

LogLine::LogLine(LogLevel level)
{
    stream << logPrefix(level) << ' ';
}

LogLine::~LogLine()
{
    stream << '\n';
    const std::string text = stream.str();
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
