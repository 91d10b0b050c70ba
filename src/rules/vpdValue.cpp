#include "vpdValue.hpp"

#include <string>
#include <type_traits>
#include <vector>

namespace hwtopod
{

std::uint64_t readVpdNumber(const DbusVariant& value)
{
    return std::visit(
        [](const auto& v) -> std::uint64_t {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, bool>)
            {
                return v ? 1 : 0;
            }
            else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>)
            {
                return v < 0 ? 0 : static_cast<std::uint64_t>(v);
            }
            else if constexpr (std::is_integral_v<T>)
            {
                return static_cast<std::uint64_t>(v);
            }
            else
            {
                // Strings, doubles and arrays carry no number.
                return 0;
            }
        },
        value);
}

nlohmann::json vpdValueToJson(const DbusVariant& value)
{
    return std::visit(
        [](const auto& v) -> nlohmann::json {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::uint8_t>)
            {
                // A byte is a number, not a character.
                return static_cast<unsigned>(v);
            }
            else
            {
                return v;
            }
        },
        value);
}

void mergeVpdProperties(VpdProperties& entry, const VpdProperties& more)
{
    // The range insert of a flat map leaves keys it holds already alone.
    entry.insert(more.begin(), more.end());
}

void mergeVpdObject(VpdCache& cache, const std::string& path,
                    const InterfaceProperties& interfaces, bool skipStandard)
{
    for (const auto& [interface, properties] : interfaces)
    {
        if (skipStandard &&
            interface.find("org.freedesktop.DBus") != std::string::npos)
        {
            continue;
        }
        mergeVpdProperties(cache[path], properties);
    }
}

void mergeVpdObjects(
    VpdCache& cache,
    const std::vector<std::pair<std::string, InterfaceProperties>>& objects)
{
    for (const auto& [path, interfaces] : objects)
    {
        mergeVpdObject(cache, path, interfaces, true);
    }
}

} // namespace hwtopod
