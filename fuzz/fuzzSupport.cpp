#include "fuzzSupport.hpp"

#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

// The event records go to the journal through this one call. In the fuzz
// targets it takes the record and drops it: the targets run millions of
// inputs, and none of them belongs in the machine's journal.
extern "C" int sd_journal_send_with_location(
    const char* /*file*/, const char* /*line*/, const char* /*func*/,
    const char* /*format*/, ...)
{
    return 0;
}

namespace hwtopod::fuzz
{

namespace
{
// Names the daemon reads from VPD objects; the fuzzer picks from these more
// often than it finds them by chance.
constexpr std::array<const char*, 16> knownNames = {
    "VpdId",       "PosIdValue", "VpdLocation", "VpdName",
    "VpdFound",    "VpdFormat",  "IpmiFruName", "BUS",
    "BackplaneId", "BusNumber",  "RiserSlot",   "Connector",
    "CpuId",       "Stepping",   "SkuNumber",   "CoreFeatureFlags",
};

std::string consumeName(FuzzedDataProvider& data)
{
    if (data.ConsumeBool())
    {
        return knownNames[data.ConsumeIntegralInRange<std::size_t>(
            0, knownNames.size() - 1)];
    }
    return data.ConsumeRandomLengthString(24);
}
} // namespace

const std::string& setUpSandbox()
{
    static const std::string root = []() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "hwtopod-fuzz-XXXXXX")
                .string();
        if (mkdtemp(pattern.data()) == nullptr)
        {
            std::abort();
        }
        std::filesystem::create_directories(pattern + "/var/configuration");
        std::filesystem::create_directories(pattern + "/dev");
        setenv("HWTOPOD_STATUS", "normal", 1);
        const std::string bus =
            "unix:path=" + pattern + "/no-system-bus-socket";
        setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(), 1);
        std::cout.setstate(std::ios::failbit);
        return pattern;
    }();
    return root;
}

void writeSandboxFile(const std::string& logicalPath, const std::string& text)
{
    const std::filesystem::path file = setUpSandbox() + logicalPath;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

DbusVariant consumeVariant(FuzzedDataProvider& data)
{
    switch (data.ConsumeIntegralInRange<int>(0, 11))
    {
        case 0:
            return data.ConsumeRandomLengthString(32);
        case 1:
            return data.ConsumeIntegral<std::int64_t>();
        case 2:
            return data.ConsumeIntegral<std::uint64_t>();
        case 3:
        {
            // Any bit pattern, NaN and infinities included.
            const auto bits = data.ConsumeIntegral<std::uint64_t>();
            double value = 0;
            static_assert(sizeof(value) == sizeof(bits));
            std::memcpy(&value, &bits, sizeof(value));
            return value;
        }
        case 4:
            return data.ConsumeIntegral<std::int32_t>();
        case 5:
            return data.ConsumeIntegral<std::uint32_t>();
        case 6:
            return data.ConsumeIntegral<std::int16_t>();
        case 7:
            return data.ConsumeIntegral<std::uint16_t>();
        case 8:
            return data.ConsumeIntegral<std::uint8_t>();
        case 9:
            return data.ConsumeBool();
        case 10:
        {
            std::vector<std::string> texts(
                data.ConsumeIntegralInRange<std::size_t>(0, 4));
            for (auto& text : texts)
            {
                text = data.ConsumeRandomLengthString(16);
            }
            return texts;
        }
        default:
            return data.ConsumeBytes<std::uint8_t>(
                data.ConsumeIntegralInRange<std::size_t>(0, 16));
    }
}

VpdProperties consumeProperties(FuzzedDataProvider& data)
{
    VpdProperties properties;
    const auto count = data.ConsumeIntegralInRange<std::size_t>(0, 12);
    for (std::size_t i = 0; i < count && data.remaining_bytes() > 0; ++i)
    {
        auto name = consumeName(data);
        properties.emplace(std::move(name), consumeVariant(data));
    }
    return properties;
}

InterfaceProperties consumeInterfaces(FuzzedDataProvider& data)
{
    static constexpr std::array<const char*, 4> interfaces = {
        "com.halvex.vpdd.Halvex_Fullv3",
        "com.halvex.vpdd.Zeta",
        "org.freedesktop.DBus.Properties",
        "org.freedesktop.DBus.Introspectable",
    };
    InterfaceProperties result;
    const auto count = data.ConsumeIntegralInRange<std::size_t>(0, 4);
    for (std::size_t i = 0; i < count && data.remaining_bytes() > 0; ++i)
    {
        std::string name =
            data.ConsumeBool()
                ? interfaces[data.ConsumeIntegralInRange<std::size_t>(
                      0, interfaces.size() - 1)]
                : data.ConsumeRandomLengthString(40);
        result.emplace(std::move(name), consumeProperties(data));
    }
    return result;
}

} // namespace hwtopod::fuzz
