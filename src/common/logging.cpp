#include "logging.hpp"

#include <array>
#include <iostream>

namespace hwtopod
{

namespace
{
constexpr std::array<std::string_view, 6> prefixes = {
    "[DEBUG]", "[INFO]", "[WARNING]", "[ERROR]", "[CRITICAL]", "[DISABLED]"};
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
    // A failed write to standard error is ignored: there is nowhere else to
    // report it.
    std::cerr << stream.str() << std::flush;
}

} // namespace hwtopod
