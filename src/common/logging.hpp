#pragma once

#include <cstdint>
#include <sstream>
#include <string_view>

namespace hwtopod
{

enum class LogLevel : std::uint8_t
{
    debug = 0,
    info = 1,
    warning = 2,
    error = 3,
    critical = 4,
    disabled = 5,
};

// One log line on standard error. The text is collected in the stream and
// written in a single insertion when the object dies, so lines of different
// threads can only meet at the newline.
class LogLine
{
  public:
    explicit LogLine(LogLevel level);
    ~LogLine();

    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;
    LogLine(LogLine&&) = delete;
    LogLine& operator=(LogLine&&) = delete;

    template <typename T>
    LogLine& operator<<(const T& value)
    {
        stream << value;
        return *this;
    }

    // Small integers print as numbers, not characters.
    LogLine& operator<<(std::uint8_t value)
    {
        stream << static_cast<unsigned>(value);
        return *this;
    }
    LogLine& operator<<(std::int8_t value)
    {
        stream << static_cast<int>(value);
        return *this;
    }
    LogLine& operator<<(bool value)
    {
        stream << (value ? 1 : 0);
        return *this;
    }

  private:
    std::ostringstream stream;
};

std::string_view logPrefix(LogLevel level);

// Shorthands: logInfo() << "text" << value;
inline LogLine logInfo()
{
    return LogLine(LogLevel::info);
}
inline LogLine logWarning()
{
    return LogLine(LogLevel::warning);
}
inline LogLine logError()
{
    return LogLine(LogLevel::error);
}
inline LogLine logCritical()
{
    return LogLine(LogLevel::critical);
}

} // namespace hwtopod
