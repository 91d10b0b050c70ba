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

template <typename T>
nlohmann::json takeJson(const sdbus::Variant& variant)
{
    return nlohmann::json(variant.get<T>());
}

nlohmann::json takePath(const sdbus::Variant& variant)
{
    return std::string(variant.get<sdbus::ObjectPath>());
}

template <typename T>
DbusVariant read(sdbus::Message& message)
{
    T value{};
    message >> value;
    return value;
}
} // namespace

Error toError(const sdbus::Error& error)
{
    return Error(error.what(), error.getName(), error.getMessage());
}

std::optional<DbusVariant> toDbusVariant(const sdbus::Variant& variant)
{
    static const std::map<std::string, DbusVariant (*)(const sdbus::Variant&)>
        readers = {
            {"s", take<std::string>},
            {"x", take<std::int64_t>},
            {"t", take<std::uint64_t>},
            {"d", take<double>},
            {"i", take<std::int32_t>},
            {"u", take<std::uint32_t>},
            {"n", take<std::int16_t>},
            {"q", take<std::uint16_t>},
            {"y", take<std::uint8_t>},
            {"b", take<bool>},
            {"as", take<std::vector<std::string>>},
            {"ay", take<std::vector<std::uint8_t>>},
        };
    if (variant.isEmpty())
    {
        return std::nullopt;
    }
    auto reader = readers.find(variant.peekValueType());
    if (reader == readers.end())
    {
        return std::nullopt;
    }
    return reader->second(variant);
}

sdbus::Variant toBindingVariant(const DbusVariant& value)
{
    return std::visit([](const auto& v) { return sdbus::Variant(v); }, value);
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

AnyValue toAnyValue(const sdbus::Variant& variant)
{
    static const std::map<std::string,
                          nlohmann::json (*)(const sdbus::Variant&)>
        readers = {
            {"s", takeJson<std::string>},
            {"o", takePath},
            {"b", takeJson<bool>},
            {"y", takeJson<std::uint8_t>},
            {"n", takeJson<std::int16_t>},
            {"q", takeJson<std::uint16_t>},
            {"i", takeJson<std::int32_t>},
            {"u", takeJson<std::uint32_t>},
            {"x", takeJson<std::int64_t>},
            {"t", takeJson<std::uint64_t>},
            {"d", takeJson<double>},
            {"as", takeJson<std::vector<std::string>>},
            {"ab", takeJson<std::vector<bool>>},
            {"ay", takeJson<std::vector<std::uint8_t>>},
            {"ai", takeJson<std::vector<std::int32_t>>},
            {"au", takeJson<std::vector<std::uint32_t>>},
            {"ax", takeJson<std::vector<std::int64_t>>},
            {"at", takeJson<std::vector<std::uint64_t>>},
            {"ad", takeJson<std::vector<double>>},
        };
    if (variant.isEmpty())
    {
        return {};
    }
    AnyValue value{variant.peekValueType(), nullptr};
    auto reader = readers.find(value.signature);
    if (reader != readers.end())
    {
        value.content = reader->second(variant);
    }
    return value;
}

std::vector<std::string> completeTypes(const std::string& signature)
{
    std::vector<std::string> types;
    for (std::size_t i = 0; i < signature.size(); ++i)
    {
        const std::size_t length = signature[i] == 'a' ? 2 : 1;
        types.push_back(signature.substr(i, length));
        i += length - 1;
    }
    return types;
}

DbusVariant readValue(sdbus::Message& message, const std::string& signature)
{
    static const std::map<std::string, DbusVariant (*)(sdbus::Message&)>
        readers = {
            {"s", read<std::string>},
            {"x", read<std::int64_t>},
            {"t", read<std::uint64_t>},
            {"d", read<double>},
            {"i", read<std::int32_t>},
            {"u", read<std::uint32_t>},
            {"n", read<std::int16_t>},
            {"q", read<std::uint16_t>},
            {"y", read<std::uint8_t>},
            {"b", read<bool>},
            {"as", read<std::vector<std::string>>},
            {"ay", read<std::vector<std::uint8_t>>},
        };
    auto reader = readers.find(signature);
    if (reader == readers.end())
    {
        throw Error("no value of signature " + signature);
    }
    return reader->second(message);
}

void appendValue(sdbus::Message& message, const DbusVariant& value)
{
    std::visit([&message](const auto& v) { message << v; }, value);
}

} // namespace hwtopod::dbus
