// readVpdNumber, the VPD cache merge and the live match callback, fed with
// InterfacesAdded-like signals decoded from the input.

#include "fuzzSupport.hpp"
#include "platforms/kelvane1u.hpp"
#include "rules/vpdValue.hpp"

#include <cstdlib>
#include <cstring>
#include <limits>

using hwtopod::fuzz::check;

namespace
{

// readVpdNumber as the table of the VPD cache says it.
std::uint64_t expectedNumber(const hwtopod::DbusVariant& value)
{
    if (const auto* v = std::get_if<std::int64_t>(&value))
    {
        return *v < 0 ? 0 : static_cast<std::uint64_t>(*v);
    }
    if (const auto* v = std::get_if<std::int32_t>(&value))
    {
        return *v < 0 ? 0 : static_cast<std::uint64_t>(*v);
    }
    if (const auto* v = std::get_if<std::int16_t>(&value))
    {
        return *v < 0 ? 0 : static_cast<std::uint64_t>(*v);
    }
    if (const auto* v = std::get_if<std::uint64_t>(&value))
    {
        return *v;
    }
    if (const auto* v = std::get_if<std::uint32_t>(&value))
    {
        return *v;
    }
    if (const auto* v = std::get_if<std::uint16_t>(&value))
    {
        return *v;
    }
    if (const auto* v = std::get_if<std::uint8_t>(&value))
    {
        return *v;
    }
    if (const auto* v = std::get_if<bool>(&value))
    {
        return *v ? 1 : 0;
    }
    return 0;
}

// Equal values, a NaN equal to itself: the merge copies values, it does not
// compare them.
bool sameValue(const hwtopod::DbusVariant& a, const hwtopod::DbusVariant& b)
{
    const auto* x = std::get_if<double>(&a);
    const auto* y = std::get_if<double>(&b);
    if (x != nullptr && y != nullptr)
    {
        return std::memcmp(x, y, sizeof(double)) == 0;
    }
    return a == b;
}

// The match callback of a platform on no bus, with discovery done, so that
// each signal also runs the FRU name check against found records.
class MatchPlatform : public Platform::Kelvane1u
{
  public:
    using Base::onVpdInterfacesAdded;
    using Kelvane1u::Kelvane1u;
};

MatchPlatform& platform()
{
    static MatchPlatform* instance = []() {
        auto machine = Platform::kelvane1uDefinition;
        machine.daisyCardFruName = {};
        auto* p = new MatchPlatform(
            Platform::Seams{.root = hwtopod::fuzz::sandboxRoot()}, machine);
        p->vpdReadyPath = "/com/halvex/vpdd/DIMM_32";
        p->markHardwareDiscovered();
        return p;
    }();
    return *instance;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes,
                                      std::size_t size)
{
    FuzzedDataProvider data(bytes, size);
    auto& match = platform();

    // Found records the FRU name check looks through: a backplane and a
    // riser whose fields come from the input too.
    match.discovery.backplanesFound = nullptr;
    match.discovery.risersFound = nullptr;
    if (data.ConsumeBool())
    {
        match.discovery.backplanesFound["backplanes"].push_back(
            {{"Connector", data.ConsumeIntegral<std::uint8_t>()},
             {"BackplaneId", data.ConsumeIntegral<std::uint16_t>()},
             {"BackplaneName", data.ConsumeRandomLengthString(16)}});
        match.discovery.risersFound["risers"].push_back(
            {{"Connector", data.ConsumeIntegral<std::uint8_t>()},
             {"RiserSlot", data.ConsumeIntegral<std::int16_t>()},
             {"RiserName", data.ConsumeRandomLengthString(16)}});
    }
    match.discovery.vpdMatchCompleted = data.ConsumeBool();
    match.discovery.vpdObjects.clear();

    hwtopod::VpdCache cache;
    const auto signals = data.ConsumeIntegralInRange<int>(1, 4);
    for (int i = 0; i < signals && data.remaining_bytes() > 0; ++i)
    {
        const std::string path = data.ConsumeBool()
                                     ? "/com/halvex/vpdd/BP_1"
                                     : data.ConsumeRandomLengthString(32);
        const auto interfaces = hwtopod::fuzz::consumeInterfaces(data);
        const auto before =
            cache.contains(path) ? cache.at(path) : hwtopod::VpdProperties{};
        const bool skipStandard = data.ConsumeBool();

        hwtopod::mergeVpdObject(cache, path, interfaces, skipStandard);

        // Names held before keep their values; a new name takes the value
        // of the first interface, in name order, that holds it.
        if (cache.contains(path))
        {
            const auto& entry = cache.at(path);
            for (const auto& [name, value] : before)
            {
                check(sameValue(entry.at(name), value));
            }
            for (const auto& [name, value] : entry)
            {
                check(hwtopod::readVpdNumber(value) == expectedNumber(value));
                if (before.contains(name))
                {
                    continue;
                }
                bool seen = false;
                for (const auto& [interface, properties] : interfaces)
                {
                    if (skipStandard &&
                        interface.find("org.freedesktop.DBus") !=
                            std::string::npos)
                    {
                        continue;
                    }
                    if (properties.contains(name))
                    {
                        check(sameValue(properties.at(name), value));
                        seen = true;
                        break;
                    }
                }
                check(seen);
            }
        }

        // The daemon's own callback on the same signal never throws.
        match.onVpdInterfacesAdded(path, interfaces);
    }
    return 0;
}
