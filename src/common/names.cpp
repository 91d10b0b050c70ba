#include "names.hpp"

#include "logging.hpp"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <string>

namespace hwtopod
{

namespace
{
bool refuse(std::string_view what, std::string_view value,
            std::string_view reason)
{
    logError() << "Refused " << what << " " << printableName(value) << ": "
               << reason;
    return false;
}

// The bus library reads NUL-terminated text: a value holding a NUL byte
// would be judged by its first part only, so it is refused before.
template <typename Check>
bool busLibraryAccepts(std::string_view value, Check check)
{
    if (value.find('\0') != std::string_view::npos)
    {
        return false;
    }
    return check(std::string(value).c_str()) > 0;
}
} // namespace

bool isValidPathElement(std::string_view element)
{
    return !element.empty() && element.find('/') == std::string_view::npos &&
           isValidObjectPath("/" + std::string(element));
}

bool isValidObjectPath(std::string_view path)
{
    return busLibraryAccepts(path, sd_bus_object_path_is_valid);
}

bool isValidInterfaceElement(std::string_view element)
{
    // Any valid second element of a two-element name is a valid element.
    return element.find('.') == std::string_view::npos &&
           isValidInterfaceName("a." + std::string(element));
}

bool isValidInterfaceName(std::string_view name)
{
    return busLibraryAccepts(name, sd_bus_interface_name_is_valid);
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

std::string nonAlnumToUnderscores(std::string text)
{
    std::replace_if(
        text.begin(), text.end(),
        [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
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

} // namespace hwtopod
