#include "names.hpp"

#include "logging.hpp"

#include <array>
#include <cstdio>

namespace hwtopod
{

namespace
{
constexpr std::size_t maxInterfaceName = 255;

bool isNameChar(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           (c >= '0' && c <= '9') || c == '_';
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool refuse(std::string_view what, std::string_view value,
            std::string_view reason)
{
    logError() << "Refused " << what << " " << printableName(value) << ": "
               << reason;
    return false;
}
} // namespace

bool isValidPathElement(std::string_view element)
{
    if (element.empty())
    {
        return false;
    }
    for (char c : element)
    {
        if (!isNameChar(c))
        {
            return false;
        }
    }
    return true;
}

bool isValidObjectPath(std::string_view path)
{
    if (path == "/")
    {
        return true;
    }
    if (path.empty() || path.front() != '/')
    {
        return false;
    }
    std::size_t start = 1;
    while (true)
    {
        const auto end = path.find('/', start);
        const auto element = path.substr(
            start, end == std::string_view::npos ? end : end - start);
        if (!isValidPathElement(element))
        {
            return false;
        }
        if (end == std::string_view::npos)
        {
            return true;
        }
        start = end + 1;
    }
}

bool isValidInterfaceElement(std::string_view element)
{
    return isValidPathElement(element) && !isDigit(element.front());
}

bool isValidInterfaceName(std::string_view name)
{
    if (name.size() > maxInterfaceName)
    {
        return false;
    }
    std::size_t elements = 0;
    std::size_t start = 0;
    while (true)
    {
        const auto end = name.find('.', start);
        const auto element = name.substr(
            start, end == std::string_view::npos ? end : end - start);
        if (!isValidInterfaceElement(element))
        {
            return false;
        }
        ++elements;
        if (end == std::string_view::npos)
        {
            return elements >= 2;
        }
        start = end + 1;
    }
}

std::string printableName(std::string_view value)
{
    std::string text = "\"";
    for (char c : value)
    {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F && c != '\\' && c != '"')
        {
            text += c;
            continue;
        }
        std::array<char, 5> escaped{};
        std::snprintf(escaped.data(), escaped.size(), "\\x%02X", byte);
        text += escaped.data();
    }
    text += '"';
    return text;
}

bool acceptPathElement(std::string_view what, std::string_view value)
{
    if (isValidPathElement(value))
    {
        return true;
    }
    return refuse(what, value,
                  value.empty() ? "empty, not an object path element"
                                : "not an object path element (only letters, "
                                  "digits and _ are allowed)");
}

bool acceptInterfaceElement(std::string_view what, std::string_view value)
{
    if (isValidInterfaceElement(value))
    {
        return true;
    }
    return refuse(what, value,
                  "not an interface name element (only letters, digits and "
                  "_ are allowed, no leading digit)");
}

bool acceptInterfaceName(std::string_view what, std::string_view value)
{
    if (isValidInterfaceName(value))
    {
        return true;
    }
    return refuse(what, value, "not a valid D-Bus interface name");
}

bool acceptObjectPath(std::string_view what, std::string_view value)
{
    if (isValidObjectPath(value))
    {
        return true;
    }
    return refuse(what, value, "not a valid D-Bus object path");
}

} // namespace hwtopod
