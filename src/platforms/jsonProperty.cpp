#include "jsonProperty.hpp"

#include "common/logging.hpp"
#include "platformBase.hpp"
#include "rules/rules.hpp"

namespace Platform
{

namespace
{
template <typename T>
std::vector<T> arrayOf(const nlohmann::json& value)
{
    std::vector<T> result;
    result.reserve(value.size());
    for (const auto& element : value)
    {
        result.push_back(element.get<T>());
    }
    return result;
}
} // namespace

namespace
{
// The kind of a value, or the one kind of every element of an array; none
// for an empty array, and none with a warning when the elements differ.
std::optional<nlohmann::json::value_t> elementType(const nlohmann::json& value)
{
    if (!value.is_array())
    {
        return value.type();
    }
    if (value.empty())
    {
        return std::nullopt;
    }
    const auto type = value.front().type();
    for (const auto& element : value)
    {
        if (element.type() != type)
        {
            // Text that is no valid UTF-8 (from VPD) is shown with
            // replacement characters instead of ending the step.
            logWarning() << "dbus format error"
                         << value.dump(
                                -1, ' ', false,
                                nlohmann::json::error_handler_t::replace);
            return std::nullopt;
        }
    }
    return type;
}
} // namespace

std::optional<hwtopod::dbus::PropertyValue> jsonPropertyValue(
    const std::string& key, const nlohmann::json& value)
{
    using Type = nlohmann::json::value_t;
    const bool isArray = value.is_array();
    const auto kind = elementType(value);
    if (!kind)
    {
        return std::nullopt;
    }

    // Each conversion below is of the JSON kind the value holds, so none
    // narrows or leaves its range.
    switch (*kind)
    {
        case Type::object:
            // Nesting is the caller's business.
            return std::nullopt;
        case Type::string:
            if (isArray)
            {
                return arrayOf<std::string>(value);
            }
            return value.get<std::string>();
        case Type::boolean:
            if (isArray)
            {
                return std::nullopt;
            }
            return value.get<bool>();
        case Type::number_integer:
            if (isArray)
            {
                return arrayOf<std::int64_t>(value);
            }
            return value.get<std::int64_t>();
        case Type::number_unsigned:
            if (isArray)
            {
                return arrayOf<std::uint64_t>(value);
            }
            return value.get<std::uint64_t>();
        case Type::number_float:
            if (isArray)
            {
                return std::nullopt;
            }
            return value.get<double>();
        default:
            logWarning() << "Unexpected json type in system configuration "
                         << key << ": " << value.type_name();
            return std::nullopt;
    }
}

void Base::addJsonProperty(
    const std::shared_ptr<hwtopod::dbus::Interface>& interface,
    const std::string& key, const nlohmann::json& value)
{
    if (!interface)
    {
        return;
    }
    if (auto typed = jsonPropertyValue(key, value))
    {
        interface->registerProperty(key, std::move(*typed));
    }
}

void Base::publishRecord(
    const std::shared_ptr<hwtopod::dbus::Interface>& interface,
    nlohmann::json record, nlohmann::json& document, const std::string& key,
    const std::string& file, std::string_view saveMessage)
{
    hwtopod::rules::appendFound(document, key, std::move(record));
    if (interface)
    {
        // All properties in one hand-over to the bus thread, not one each:
        // the discovery worker would otherwise wait for that thread a dozen
        // times a board.
        std::vector<std::pair<std::string, hwtopod::dbus::PropertyValue>>
            values;
        for (const auto& [name, value] : document.at(key).back().items())
        {
            if (auto typed = jsonPropertyValue(name, value))
            {
                values.emplace_back(name, std::move(*typed));
            }
        }
        interface->initialize(std::move(values));
    }
    if (resultWriter)
    {
        resultWriter->save(seams.root, document, file, saveMessage);
        return;
    }
    hwtopod::rules::saveFoundHardware(seams.root, document, file, saveMessage);
}

} // namespace Platform
