// The PSU configuration file: read from the sandbox as the daemon reads it,
// each element turned into the object it would publish.

#include "common/names.hpp"
#include "fuzzSupport.hpp"
#include "platforms/kelvane1u.hpp"
#include "platforms/platformInfo.hpp"

#include <cstdlib>

using hwtopod::fuzz::check;

namespace
{

// publishPsuConfigs of a platform without a bus: everything up to the
// object server, which is not there, runs.
class PsuPlatform : public Platform::Kelvane1u
{
  public:
    using Base::publishPsuConfigs;
    using Kelvane1u::Kelvane1u;
};

PsuPlatform& platform()
{
    static PsuPlatform* instance = []() {
        return new PsuPlatform(
            Platform::Seams{.root = hwtopod::fuzz::sandboxRoot()});
    }();
    return *instance;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes,
                                      std::size_t size)
{
    auto& psu = platform();
    const std::string text(reinterpret_cast<const char*>(bytes), size);
    hwtopod::fuzz::writeSandboxFile(
        Platform::MachineDefinition::dataPath(psu.definition.psuConfigFiles),
        text);
    psu.publishPsuConfigs();

    const auto document = nlohmann::json::parse(text, nullptr, false);
    if (document.is_discarded())
    {
        return 0;
    }
    for (const auto& element : document)
    {
        try
        {
            const auto object = Platform::psuObject(element);
            if (!object)
            {
                continue;
            }
            // What is published stays in its place.
            check(hwtopod::isValidObjectPath(
                "/com/halvex/platform/hardware/psus/" + object->name));
            check(hwtopod::isValidInterfaceName("com.halvex." + object->type));
            Platform::forEachPsuProperty(
                element, [&](const std::string& key,
                             const hwtopod::dbus::PropertyValue& value) {
                    check(element.contains(key));
                    check(hwtopod::dbus::signatureOf(value) != "t" ||
                          element.at(key).is_number());
                });
        }
        catch (const std::exception&)
        {
            // A value of the wrong JSON type or out of range ends the file,
            // as in the daemon.
            break;
        }
    }
    return 0;
}
