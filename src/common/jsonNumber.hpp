#pragma once

#include <nlohmann/json.hpp>

#include <charconv>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace hwtopod
{

// The integer a JSON value holds, as T, when T holds it exactly: nothing for
// a value of another kind, a number out of T's range, or a float with a
// fraction. A whole float (2.0, as some editors write numbers) is taken,
// since the file's author meant the integer.
template <std::integral T>
std::optional<T> jsonInteger(const nlohmann::json& value)
{
    if (value.is_number_unsigned())
    {
        const auto number = value.get<std::uint64_t>();
        return std::in_range<T>(number)
                   ? std::optional<T>(static_cast<T>(number))
                   : std::nullopt;
    }
    if (value.is_number_integer())
    {
        const auto number = value.get<std::int64_t>();
        return std::in_range<T>(number)
                   ? std::optional<T>(static_cast<T>(number))
                   : std::nullopt;
    }
    if (value.is_number_float())
    {
        const double number = value.get<double>();
        // Both bounds are powers of two, exact as doubles; the comparison
        // also refuses NaN.
        const double below =
            std::is_signed_v<T>
                ? -std::ldexp(1.0, std::numeric_limits<T>::digits)
                : 0.0;
        const double above = std::ldexp(1.0, std::numeric_limits<T>::digits);
        if (number >= below && number < above && std::trunc(number) == number)
        {
            return static_cast<T>(number);
        }
    }
    return std::nullopt;
}

// The decimal number that text is, whole, as T; nothing for anything else.
template <std::integral T>
std::optional<T> decimalInteger(std::string_view text)
{
    T number{};
    const auto* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (text.empty() || error != std::errc() || stop != end)
    {
        return std::nullopt;
    }
    return number;
}

} // namespace hwtopod
