#include "common/logging.hpp"
#include "platformBase.hpp"

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

void Base::addJsonProperty(
    const std::shared_ptr<hwtopod::dbus::Interface>& interface,
    const std::string& key, const nlohmann::json& value)
{
    if (!interface)
    {
        return;
    }
    using Type = nlohmann::json::value_t;
    const bool isArray = value.is_array();
    Type elementType = value.type();
    if (isArray)
    {
        if (value.empty())
        {
            return;
        }
        elementType = value.front().type();
        for (const auto& element : value)
        {
            if (element.type() != elementType)
            {
                logWarning() << "dbus format error" << value.dump();
                return;
            }
        }
    }

    switch (elementType)
    {
        case Type::object:
            // Nesting is the caller's business.
            return;
        case Type::string:
            if (isArray)
            {
                interface->registerProperty(key, arrayOf<std::string>(value));
            }
            else
            {
                interface->registerProperty(key, value.get<std::string>());
            }
            return;
        case Type::boolean:
            if (!isArray)
            {
                interface->registerProperty(key, value.get<bool>());
            }
            return;
        case Type::number_integer:
            if (isArray)
            {
                interface->registerProperty(key, arrayOf<std::int64_t>(value));
            }
            else
            {
                interface->registerProperty(key, value.get<std::int64_t>());
            }
            return;
        case Type::number_unsigned:
            if (isArray)
            {
                interface->registerProperty(key, arrayOf<std::uint64_t>(value));
            }
            else
            {
                interface->registerProperty(key, value.get<std::uint64_t>());
            }
            return;
        case Type::number_float:
            if (!isArray)
            {
                interface->registerProperty(key, value.get<double>());
            }
            return;
        default:
            logWarning() << "Unexpected json type in system configuration "
                         << key << ": " << value.type_name();
            return;
    }
}

} // namespace Platform
