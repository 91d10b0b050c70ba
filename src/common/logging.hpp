#pragma once

#include <array>
#include <charconv>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

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

// One log line on standard error. The text is collected in the object and
// written in a single insertion when it dies, so lines of different threads
// can only meet at the newline. Text and integers are appended as they are,
// without a stream: the daemon logs a few hundred lines a discovery, and a
// stream for each was most of their cost. Other values (floating point,
// JSON, paths) go through a stream in its default format.
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
        // Only text by its own types: a value that merely converts to text
        // (a JSON value, a path) prints as its stream insertion says.
        if constexpr (std::is_same_v<T, std::string> ||
                      std::is_same_v<T, std::string_view> ||
                      std::is_same_v<std::decay_t<T>, const char*> ||
                      std::is_same_v<std::decay_t<T>, char*>)
        {
            text += std::string_view(value);
        }
        else if constexpr (std::is_same_v<T, char>)
        {
            text += value;
        }
        else if constexpr (std::is_same_v<T, bool>)
        {
            // Streams print booleans as numbers unless told otherwise.
            text += value ? '1' : '0';
        }
        else if constexpr (std::is_integral_v<T>)
        {
            // Small integers print as numbers, not characters.
            appendNumber(value);
        }
        else
        {
            std::ostringstream stream;
            stream << value;
            text += std::move(stream).str();
        }
        return *this;
    }

  private:
    template <typename T>
    void appendNumber(T value)
    {
        // Room for any integer of up to 64 bits and its sign.
        std::array<char, 24> digits{};
        const auto result =
            std::to_chars(digits.data(), digits.data() + digits.size(), value);
        text.append(digits.data(), result.ptr);
    }

    std::string text;
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
