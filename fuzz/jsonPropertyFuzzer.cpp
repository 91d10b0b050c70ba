// The type rules of addJsonProperty: which D-Bus value a JSON value of a
// rule file or a record becomes, checked against the JSON it came from.

#include "fuzzSupport.hpp"
#include "platforms/jsonProperty.hpp"

#include <cstdlib>

using hwtopod::fuzz::check;

namespace
{
using Type = nlohmann::json::value_t;

// The value's own type, or its elements' common type; none for mixed.
std::optional<Type> elementType(const nlohmann::json& value)
{
    if (!value.is_array())
    {
        return value.type();
    }
    if (value.empty())
    {
        return std::nullopt;
    }
    for (const auto& element : value)
    {
        if (element.type() != value.front().type())
        {
            return std::nullopt;
        }
    }
    return value.front().type();
}

void checkOne(const std::string& key, const nlohmann::json& value)
{
    const auto typed = Platform::jsonPropertyValue(key, value);
    const auto type = elementType(value);
    if (!typed)
    {
        return;
    }
    check(type.has_value());
    const auto signature = hwtopod::dbus::signatureOf(*typed);
    if (value.is_array())
    {
        check(value.size() > 0);
        switch (*type)
        {
            case Type::string:
                check(signature == "as");
                check(std::get<std::vector<std::string>>(*typed) ==
                      value.get<std::vector<std::string>>());
                break;
            case Type::number_integer:
                check(signature == "ax");
                break;
            case Type::number_unsigned:
                check(signature == "at");
                check(std::get<std::vector<std::uint64_t>>(*typed) ==
                      value.get<std::vector<std::uint64_t>>());
                break;
            default:
                // Arrays of booleans, floats, objects or nulls publish
                // nothing.
                check(false);
        }
        return;
    }
    switch (*type)
    {
        case Type::string:
            check(signature == "s");
            check(std::get<std::string>(*typed) == value.get<std::string>());
            break;
        case Type::boolean:
            check(signature == "b");
            break;
        case Type::number_integer:
            check(signature == "x");
            check(std::get<std::int64_t>(*typed) == value.get<std::int64_t>());
            break;
        case Type::number_unsigned:
            check(signature == "t");
            check(std::get<std::uint64_t>(*typed) ==
                  value.get<std::uint64_t>());
            break;
        case Type::number_float:
            check(signature == "d");
            break;
        default:
            check(false);
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes,
                                      std::size_t size)
{
    hwtopod::fuzz::setUpSandbox();
    FuzzedDataProvider data(bytes, size);
    const std::string key = data.ConsumeRandomLengthString(32);
    const auto document = nlohmann::json::parse(
        data.ConsumeRemainingBytesAsString(), nullptr, false, true);
    if (document.is_discarded())
    {
        return 0;
    }
    // The document itself under the key, then each of its members as a
    // record's keys are published.
    checkOne(key, document);
    if (document.is_object())
    {
        for (const auto& [member, value] : document.items())
        {
            checkOne(member, value);
        }
    }
    // A string member with bytes that are no UTF-8, as VPD can put into a
    // record, in an array of mixed types: the warning still comes out.
    nlohmann::json mixed = nlohmann::json::array({key, 1});
    checkOne(key, mixed);
    return 0;
}
