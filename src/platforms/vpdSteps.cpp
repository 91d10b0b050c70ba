// Rule files, the VPD cache and the live match on the VPD service's signals.
//
// One writer. vpdObjects and the found-hardware documents are written on the
// discovery worker only: the match callback hands each signal to it, and on
// a restart waitForVpd reads the VPD service on the hardware thread and hands
// the emptying and merging of vpdObjects and the call of probeCachedVpdd to
// it. The two writers of the cache thus run one after the other, in the
// order their work reaches the worker, and neither the cache nor the
// documents need a lock; the io thread, which serves the daemon's objects,
// never waits on discovery.
#include "common/paths.hpp"
#include "common/sleep.hpp"
#include "common/vpdIds.hpp"
#include "dbus/client.hpp"
#include "platformHighvol.hpp"
#include "rules/rules.hpp"

#include <cctype>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace Platform
{

namespace
{
namespace rules = hwtopod::rules;

constexpr auto vpdService = "com.halvex.vpdd";
constexpr auto vpdInterfacePrefix = "com.halvex.vpdd.";
constexpr auto halvexFullInterface = "com.halvex.vpdd.Halvex_Fullv3";
constexpr auto productVpdPath = "/com/halvex/vpdd/HPM_VPD";
constexpr auto daisyCardFruNumber = "09ZT415";
constexpr auto vpdMatchRule =
    "sender='com.halvex.vpdd',arg0path='/com/halvex/vpdd/',type='signal',"
    "interface='org.freedesktop.DBus.ObjectManager',member='InterfacesAdded',";

// A string property: absent gives the empty string, another type throws.
std::string stringProperty(const VpdProperties& properties,
                           const std::string& name)
{
    auto found = properties.find(name);
    if (found == properties.end())
    {
        return {};
    }
    const auto* text = std::get_if<std::string>(&found->second);
    if (text == nullptr)
    {
        throw std::runtime_error(name + " is not a string");
    }
    return *text;
}

// A number property read with readVpdNumber; absent gives 0.
std::uint64_t numberProperty(const VpdProperties& properties,
                             const std::string& name)
{
    auto found = properties.find(name);
    return found == properties.end() ? 0
                                     : hwtopod::readVpdNumber(found->second);
}

// The first record of the found-hardware documents, backplanes before
// risers, whose Connector equals location; null when there is none. A
// document that holds no records yet throws.
nlohmann::json findRecordByConnector(const nlohmann::json& backplanes,
                                     const nlohmann::json& risers,
                                     std::uint64_t location)
{
    for (const auto& records :
         {backplanes.at("backplanes"), risers.at("risers")})
    {
        for (const auto& record : records)
        {
            auto connector = record.find("Connector");
            if (connector != record.end() && *connector == location)
            {
                return record;
            }
        }
    }
    return nullptr;
}
// What names a board's FRU: the keys of its record and its device type.
struct FruKind
{
    const char* indexKey;
    const char* nameKey;
    hwtopod::DeviceType type;
};

// The kind of a board's VPD id; none for other ids.
std::optional<FruKind> fruKindOf(std::uint64_t id)
{
    if (id == hwtopod::vpdId::backplane ||
        id == hwtopod::vpdId::virtualBackplane)
    {
        return FruKind{"BackplaneId", "BackplaneName",
                       hwtopod::DeviceType::Backplane};
    }
    if (id == hwtopod::vpdId::riser)
    {
        return FruKind{"RiserSlot", "RiserName",
                       hwtopod::DeviceType::PcieRiser};
    }
    return std::nullopt;
}

// The FRU name a record gives; a backplane's has only letters, digits and
// underscores. A record without its name key throws.
std::string fruNameOf(const nlohmann::json& record, const FruKind& kind)
{
    std::string name = record.at(kind.nameKey).get<std::string>();
    if (kind.type == hwtopod::DeviceType::Backplane)
    {
        for (auto& c : name)
        {
            if (std::isalnum(static_cast<unsigned char>(c)) == 0)
            {
                c = '_';
            }
        }
    }
    return name;
}

// VpdFound of a signal's interface; throws when it is absent or no boolean.
bool vpdFound(const VpdProperties& properties)
{
    auto found = properties.find("VpdFound");
    if (found == properties.end() ||
        !std::holds_alternative<bool>(found->second))
    {
        throw std::runtime_error("VpdFound is not a boolean");
    }
    return std::get<bool>(found->second);
}

// The FRU name check of one interface of a signal, once discovery has run.
void checkFruName(Base& platform, const std::string& path,
                  const std::string& interface, const VpdProperties& properties)
{
    if (interface != halvexFullInterface)
    {
        return;
    }
    try
    {
        if (!vpdFound(properties))
        {
            return;
        }
        const std::string fruName = stringProperty(properties, "IpmiFruName");
        const std::uint64_t location =
            numberProperty(properties, "VpdLocation");
        const auto kind = fruKindOf(numberProperty(properties, "VpdId"));
        // The cached entry holds the first values seen for the object.
        const std::string format =
            stringProperty(platform.discovery.vpdObjects[path], "VpdFormat");
        if (!kind)
        {
            return;
        }
        const nlohmann::json record =
            findRecordByConnector(platform.discovery.backplanesFound,
                                  platform.discovery.risersFound, location);
        if (record.is_null())
        {
            return;
        }
        // A record without its name or index key throws here and leaves the
        // FRU name alone.
        const std::string name = fruNameOf(record, *kind);
        const auto index =
            rules::numberAs<std::uint8_t>(record.at(kind->indexKey));
        if (name != fruName)
        {
            platform.updateFruName(path, format, kind->type, index, name);
        }
    }
    catch (const std::exception& e)
    {
        logCritical() << "Failed to update " << path << " interface "
                      << interface << " fru name: " << e.what();
    }
}

// Gives the management switch card its FRU name.
void checkDaisyCard(const Base& platform, const std::string& path)
{
    const std::string daisyCardVpdPath(platform.definition.daisyCardVpdPath);
    const std::string daisyCardFruName(platform.definition.daisyCardFruName);
    if (daisyCardFruName.empty() || daisyCardVpdPath.empty())
    {
        logInfo() << "New daisy fru name or objPath is empty.";
        return;
    }
    if (path != daisyCardVpdPath)
    {
        return;
    }
    auto fruNumber = hwtopod::dbus::getPropertyValue<std::string>(
        vpdService, daisyCardVpdPath, halvexFullInterface, "CardFruNumber");
    if (fruNumber != daisyCardFruNumber)
    {
        logInfo() << "Daisy not install.";
        return;
    }
    auto fruName = hwtopod::dbus::getPropertyValue<std::string>(
        vpdService, daisyCardVpdPath, halvexFullInterface, "IpmiFruName");
    if (fruName == daisyCardFruName)
    {
        logInfo() << "Daisy not need to update name.";
        return;
    }
    hwtopod::dbus::setPropertyValue(daisyCardVpdPath, halvexFullInterface,
                                    daisyCardFruName);
    logInfo() << "Update daisy fru name: (" << daisyCardVpdPath << ")==>("
              << daisyCardFruName << ")";
    logInfo() << "Daisy card found,update fru name.";
}

} // namespace

int Base::loadTrd()
{
    bpTrdRulesFile = hwtopod::dataFile("kelvane80_1u_pass1_trd.json");
    bpTrdRules = rules::loadRuleFile(seams.root, "bpTrdRules", bpTrdRulesFile,
                                     rules::TopLevel::any);
    if (bpTrdRules)
    {
        try
        {
            if (!bpTrdRules->is_object())
            {
                throw std::runtime_error(
                    std::string("top level is a JSON ") +
                    bpTrdRules->type_name() + ", not an object");
            }
            // An absent section is a null copy: set, and empty to iterate.
            auto section = [this](const char* key) {
                auto found = bpTrdRules->find(key);
                return std::make_shared<nlohmann::json>(
                    found == bpTrdRules->end() ? nlohmann::json() : *found);
            };
            auto backplanes = section("backplanes");
            auto risers = section("risers");
            auto midplanes = section("midplanes");
            trdBackplanes = backplanes;
            trdRisers = risers;
            trdMidplanes = midplanes;
        }
        catch (const std::exception& e)
        {
            logCritical() << "Exception in loadTrd : bpTrdRules " << e.what();
        }
    }

    // The three rule files are arrays of rules; one of another kind loads,
    // and the probes find no rule with a POSID in it.
    auto load = [this](std::string_view name, std::string_view file) {
        return rules::loadRuleFile(seams.root, name,
                                   MachineDefinition::dataPath(file),
                                   rules::TopLevel::any);
    };
    backplanesData = load("backplanesFile", definition.backplanesFile);
    risersData = load("risersFile", definition.risersFile);
    powerBackplanesData =
        load("powerBackplanesFiles", definition.powerBackplanesFiles);
    return 0;
}

void Base::matchVpdd()
{
    logInfo() << "[Base::matchVpdd] start ";
    if (!backplanesData || !trdBackplanes)
    {
        logError() << "[Base::matchVpdd] TRD files are not loaded";
        return;
    }
    if (!connection)
    {
        logError() << "[Base::matchVpdd] no D-Bus connection";
        return;
    }
    // The old match, if any, goes before the new one is stored.
    dbusMatches.erase("matchVpdd");
    try
    {
        dbusMatches["matchVpdd"] = std::make_unique<hwtopod::dbus::Match>(
            connection, vpdMatchRule,
            [this](const std::string& path,
                   const hwtopod::InterfaceProperties& interfaces) {
            discoveryWorker->post([this, path, interfaces]() {
                onVpdInterfacesAdded(path, interfaces);
            });
            });
    }
    catch (const std::exception& e)
    {
        // Without the match a first start stays without discovery, as with
        // missing rule files; the service itself goes on.
        logCritical() << "Exception in matchVpdd: " << e.what();
    }
}

void Base::onVpdInterfacesAdded(const std::string& path,
                                const hwtopod::InterfaceProperties& interfaces)
{
    // On a restart a ready signal that comes before waitForVpd has read the
    // service would start discovery on the part of the cache that signals
    // brought, and every board published before the daemon listened would
    // be lost. So it, and every signal after it, waits for the read and is
    // then handled as if it had come after it.
    const bool readyPending =
        path == vpdReadyPath && !discovery.vpdMatchCompleted &&
        !definition.bpProbeStatic;
    if (!normalStart && !discovery.vpdReadoutDone &&
        (readyPending || !discovery.signalsAfterReadout.empty()))
    {
        discovery.signalsAfterReadout.emplace_back(path, interfaces);
        return;
    }
    try
    {
        for (const auto& [interface, properties] : interfaces)
        {
            logInfo() << "Get interface "
                      << interface << " update on path: " << path;
            hwtopod::mergeVpdProperties(discovery.vpdObjects[path], properties);
            if (definition.bpProbeStatic)
            {
                probeVpdd(path);
                continue;
            }
            if (path == vpdReadyPath && !discovery.vpdMatchCompleted)
            {
                discovery.vpdMatchCompleted = true;
                logInfo() << "matchVpdd completed";
                probeCachedVpdd();
            }
            if (discovery.vpdMatchCompleted)
            {
                checkFruName(*this, path, interface, properties);
            }
        }
        checkDaisyCard(*this, path);
    }
    catch (const std::exception& e)
    {
        logCritical() << "Exception in matchVpdd callback: " << e.what();
    }
}

void Base::waitForVpd()
{
    if (normalStart)
    {
        return;
    }
    // vpdReadyPath and the rule documents are set by serviceSetup.
    waitForServiceSetup();
    while (hwtopod::dbus::getDbusInterfaces(vpdService, vpdReadyPath).empty())
    {
        logInfo() << "VPDD is not ready, delay 5 seconds";
        sleepSeconds(5);
    }

    // Emptied before the call: a signal the worker merges after this is
    // kept, and the reply is merged on top of it, as if the signal had come
    // first.
    discoveryWorker->run([this]() { discovery.vpdObjects.clear(); });
    hwtopod::dbus::ManagedObjects objects;
    try
    {
        // On a connection of its own, without the client mutex: it is the
        // one call of its kind and nothing else waits for it.
        objects = hwtopod::dbus::getManagedObjects(vpdService, "/");
    }
    catch (const std::exception& e)
    {
        logCritical() << "Failed to get vpdd " << e.what();
    }

    // See the top of this file: the cache is written on the worker. FRU
    // names are left alone until a ready signal comes. The signals held
    // back for the walk are handed on however it ends: a walk that throws
    // leaves with its exception to the caller after them, and later signals
    // are handled as they come.
    discoveryWorker->run([this, &objects]() {
        auto releaseSignals = [this]() {
            discovery.vpdReadoutDone = true;
            for (const auto& [path, interfaces] :
                 std::exchange(discovery.signalsAfterReadout, {}))
            {
                onVpdInterfacesAdded(path, interfaces);
            }
        };
        try
        {
            hwtopod::mergeVpdObjects(discovery.vpdObjects, objects);
            probeCachedVpdd();
        }
        catch (...)
        {
            releaseSignals();
            throw;
        }
        releaseSignals();
    });
}

void Base::updateFruName(const std::string& path, const std::string& format,
                         hwtopod::DeviceType type, std::uint8_t index,
                         const std::string& name)
{
    std::string newName = name;
    if (newName.empty())
    {
        if (type == hwtopod::DeviceType::PcieRiser)
        {
            newName = "PCIe_Riser_" + std::to_string(index);
        }
        else if (type == hwtopod::DeviceType::Backplane)
        {
            newName = "Backplane_" + std::to_string(index);
        }
        else
        {
            return;
        }
    }
    // A format the bus cannot take in an interface name fails the set like
    // any other refusal: the service's error is the set's one line.
    hwtopod::dbus::setPropertyValue(path, vpdInterfacePrefix + format, newName);
    logInfo() << "Update fru name: (" << path << ")==>(" << newName << ")";
}

void Base::updateProductName()
{
    const auto text = hwtopod::dbus::getPropertyValue<std::string>(
        vpdService, productVpdPath, halvexFullInterface,
        "HalvexProductNameTextDescription");
    std::string name = text.substr(0, text.find(','));
    {
        std::lock_guard lock(productNameMutex);
        productName = name;
    }
    logInfo() << "MKT Name = " << name;
}

} // namespace Platform
