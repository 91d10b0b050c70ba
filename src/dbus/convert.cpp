#include "convert.hpp"

namespace hwtopod::dbus
{

namespace
{
template <typename T>
DbusVariant take(const sdbus::Variant& variant)
{
    return DbusVariant(variant.get<T>());
}
} // namespace

std::optional<DbusVariant> toDbusVariant(const sdbus::Variant& variant)
{
    if (variant.isEmpty())
    {
        return std::nullopt;
    }
    const std::string type = variant.peekValueType();
    if (type == "s")
    {
        return take<std::string>(variant);
    }
    if (type == "x")
    {
        return take<std::int64_t>(variant);
    }
    if (type == "t")
    {
        return take<std::uint64_t>(variant);
    }
    if (type == "d")
    {
        return take<double>(variant);
    }
    if (type == "i")
    {
        return take<std::int32_t>(variant);
    }
    if (type == "u")
    {
        return take<std::uint32_t>(variant);
    }
    if (type == "n")
    {
        return take<std::int16_t>(variant);
    }
    if (type == "q")
    {
        return take<std::uint16_t>(variant);
    }
    if (type == "y")
    {
        return take<std::uint8_t>(variant);
    }
    if (type == "b")
    {
        return take<bool>(variant);
    }
    if (type == "as")
    {
        return take<std::vector<std::string>>(variant);
    }
    if (type == "ay")
    {
        return take<std::vector<std::uint8_t>>(variant);
    }
    return std::nullopt;
}

InterfaceProperties toInterfaceProperties(
    const std::map<std::string, std::map<std::string, sdbus::Variant>>& raw)
{
    InterfaceProperties result;
    for (const auto& [interfaceName, properties] : raw)
    {
        VpdProperties& converted = result[interfaceName];
        for (const auto& [name, value] : properties)
        {
            if (auto variant = toDbusVariant(value))
            {
                converted.emplace(name, std::move(*variant));
            }
        }
    }
    return result;
}

} // namespace hwtopod::dbus
