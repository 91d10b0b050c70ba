// The probes of machines that take each VPD object as it comes: backplanes,
// risers and midplanes matched against the rule files one by one.

#include "common/vpdIds.hpp"
#include "i2cLink.hpp"
#include "platformBase.hpp"
#include "probeHelpers.hpp"
#include "rules/rules.hpp"

#include <stdexcept>
#include <utility>

namespace Platform
{

using hwtopod::readVpdNumber;
namespace vpdId = hwtopod::vpdId;
using namespace probe;
namespace rules = hwtopod::rules;

namespace
{
constexpr std::string_view notLoaded = "hwtopod TRD files are not loaded";
} // namespace

std::string backplaneTypeOf(const hwtopod::VpdCache& objects)
{
    for (const auto& [objectPath, properties] : objects)
    {
        auto pos = properties.find("PosIdValue");
        const auto value =
            pos == properties.end() ? 0 : readVpdNumber(pos->second);
        if (hwtopod::posId::isE3sBackplane(value))
        {
            return "E3.S";
        }
    }
    return "NormalBP";
}

void Base::probeVpdd(const std::string& path)
{
    auto found = discovery.vpdObjects.find(path);
    if (found == discovery.vpdObjects.end())
    {
        logInfo() << "probeVpdd: path " << path << " was not found";
        return;
    }
    const auto& vpd = found->second;
    if (!vpd.contains("VpdId") || !vpd.contains("PosIdValue") ||
        !vpd.contains("BUS"))
    {
        logWarning() << "probeVpdd: properties in path " << path
                     << " are incompleted";
        return;
    }
    const auto id = readVpdNumber(vpd.at("VpdId"));
    const auto posId = readVpdNumber(vpd.at("PosIdValue"));
    logInfo() << "probeVpdd: VPDID " << id << ", POSID " << posId;
    switch (id)
    {
        case vpdId::productBackplane:
            updateProductName();
            [[fallthrough]];
        case vpdId::backplane:
        case vpdId::virtualBackplane:
            if (definition.bpProbeStatic)
            {
                probeBpVpddStatic(path, posId);
            }
            else
            {
                probeBpVpddDynamic(path, posId);
            }
            return;
        case vpdId::powerDistributionBoard:
            if (definition.midplaneProbeEnabled)
            {
                probeChassisMidplaneBaseOnPdbStatic(path, posId);
            }
            return;
        case vpdId::riser:
            if (definition.riserProbeStatic)
            {
                probeRiserVpddStatic(path, posId);
            }
            else
            {
                probeRiserVpddDynamic(path, posId);
            }
            return;
        default:
            return;
    }
}

const VpdProperties* Base::cachedVpd(
    const std::shared_ptr<nlohmann::json>& rules,
    const std::shared_ptr<nlohmann::json>& topology, const std::string& path,
    std::string_view notLoaded, std::string_view prober) const
{
    if (!rules || !topology)
    {
        logError() << notLoaded;
        return nullptr;
    }
    auto found = discovery.vpdObjects.find(path);
    if (found == discovery.vpdObjects.end())
    {
        logError() << prober << ": path " << path << " was not found";
        return nullptr;
    }
    return &found->second;
}

bool Base::acceptMatch(const rules::BoardMatch& match)
{
    rules::logLines(match.lines);
    if (!match.failure.empty())
    {
        throw std::runtime_error(match.failure);
    }
    return match.found();
}

const nlohmann::json& Base::composedRecord(const rules::BoardMatch& match)
{
    rules::logLines(match.recordLines);
    if (!match.compositionFailure.empty())
    {
        throw std::runtime_error(match.compositionFailure);
    }
    return match.record;
}

void Base::linkBackplane(const nlohmann::json& record) const
{
    if (record.contains("BackplaneId") && record.contains("BusNumber"))
    {
        hwtopod::createI2cLink(seams.root, hwtopod::DeviceType::Backplane,
                               numberAs<unsigned>(record.at("BackplaneId")),
                               numberAs<unsigned>(record.at("BusNumber")));
    }
    else
    {
        logWarning() << "BusNumber or BackplaneId did not find in setting ";
    }
}

void Base::probeBpVpddStatic(const std::string& path, std::uint64_t posId)
{
    const auto* vpd = cachedVpd(backplanesData, trdBackplanes, path, notLoaded,
                                "probeBpVpddStatic");
    if (vpd == nullptr)
    {
        return;
    }
    if (definition.bpTypeKeyed && discovery.backplaneType == "NONE")
    {
        discovery.backplaneType = backplaneTypeOf(discovery.vpdObjects);
    }
    rules::Selectors select;
    if (definition.bpTypeKeyed)
    {
        select.backplaneType = discovery.backplaneType;
    }
    auto match = rules::matchStaticBackplane(*backplanesData, *trdBackplanes,
                                             *vpd, posId, select);
    if (!acceptMatch(match))
    {
        return;
    }
    auto interface = addDbusInterface(
        "/chassis/bp/" + blanksToUnderscores(match.name), match.interface);
    if (!interface)
    {
        return;
    }
    // A record that cannot be composed, linked or announced (no
    // BackplaneId, one of the wrong type) ends the probe here: its interface
    // stays created and uninitialised, and the exception goes to the caller.
    const auto& record = composedRecord(match);
    linkBackplane(record);
    if (!record.contains("VirtualBP"))
    {
        hwtopod::sendPresentEvent(hwtopod::DeviceType::Backplane, true,
                                  numberAs<unsigned>(record.at("BackplaneId")),
                                  "", false);
    }
    publishRecord(interface, std::move(match.record), discovery.backplanesFound,
                  "backplanes", rules::backplanesFoundFile,
                  "hwtopod start save json ");
}

// The I2C links of a riser's PCIe slots: consecutive buses from BUS and
// BusOffset, a position without a slot using one up.
void Base::linkRiserSlots(const nlohmann::json& record) const
{
    if (record.contains("PCIeSlot") && record.contains("BUS"))
    {
        // BusOffset counts whenever it is a number, 0 and negative ones too.
        // Bus numbers are unsigned and wrap, as the link's parameter takes
        // them: a sum below 0 is a bus that does not exist, and its link
        // fails with its own message.
        int offset = 1;
        if (record.contains("BusOffset") && record.at("BusOffset").is_number())
        {
            offset = numberAs<int>(record.at("BusOffset"));
        }
        const unsigned first = numberAs<unsigned>(record.at("BUS")) +
                               static_cast<unsigned>(offset);
        const auto& slots = record.at("PCIeSlot");
        if (slots.is_array())
        {
            for (std::size_t i = 0; i < slots.size(); ++i)
            {
                // 0 or less, or no number: a position without a slot.
                const auto& slot = slots[i];
                if (slot.is_number() && slot > 0)
                {
                    hwtopod::createI2cLink(seams.root,
                                           hwtopod::DeviceType::PcieCard,
                                           numberAs<unsigned>(slot),
                                           first + static_cast<unsigned>(i));
                }
            }
        }
    }
}

// The presence event of a riser of the static road, naming its connector.
void Base::sendRiserPresence(const nlohmann::json& record)
{
    const auto slot = numberAs<unsigned>(record.at("RiserSlot"));
    if (record.contains("Connector"))
    {
        const std::string name =
            "PWR_" + std::to_string(numberAs<unsigned>(record.at("Connector")));
        hwtopod::sendPresentEvent(hwtopod::DeviceType::PcieRiser, true, slot,
                                  name, false);
        logInfo() << "Connector of RiserSlot[" << record.at("RiserSlot").dump()
                  << "] was found in setting: " << name;
    }
    else
    {
        hwtopod::sendPresentEvent(hwtopod::DeviceType::PcieRiser, true, slot,
                                  "", false);
        logInfo() << "Connector of RiserSlot[" << record.at("RiserSlot").dump()
                  << "] was not found in setting ";
    }
}

void Base::probeRiserVpddStatic(const std::string& path, std::uint64_t posId)
{
    const auto* vpd = cachedVpd(risersData, trdRisers, path, notLoaded,
                                "probeRiserVpddStatic");
    if (vpd == nullptr)
    {
        return;
    }
    auto match = rules::matchStaticRiser(*risersData, *trdRisers, *vpd, posId);
    if (!acceptMatch(match))
    {
        return;
    }
    auto interface = addDbusInterface(
        "/chassis/riser/" + blanksToUnderscores(match.name), match.interface);
    if (!interface)
    {
        return;
    }
    linkRiserSlots(composedRecord(match));
    sendRiserPresence(match.record);
    publishRecord(interface, std::move(match.record), discovery.risersFound,
                  "risers", rules::risersFoundFile, "hwtopod start save json ");
}

// The I2C link of a midplane record, or the warning that it has no bus.
void Base::linkMidplane(const nlohmann::json& record) const
{
    if (record.contains("Bus"))
    {
        hwtopod::createI2cLink(seams.root, hwtopod::DeviceType::Midplane,
                               numberAs<unsigned>(record.at("Index")),
                               numberAs<unsigned>(record.at("Bus")));
    }
    else
    {
        logWarning() << "Midplane's I2C bus was not found in setting ";
    }
}

void Base::probeChassisMidplaneBaseOnPdbStatic(const std::string& path,
                                               std::uint64_t posId)
{
    const auto* vpd =
        cachedVpd(powerBackplanesData, trdMidplanes, path, notLoaded,
                  "probeChassisMidplaneBaseOnPdbStatic");
    if (vpd == nullptr)
    {
        return;
    }
    auto match =
        rules::matchMidplane(*powerBackplanesData, *trdMidplanes, *vpd, posId);
    if (!acceptMatch(match))
    {
        return;
    }
    auto interface =
        addDbusInterface("/chassis/midplane/" + blanksToUnderscores(match.name),
                         match.interface);
    if (!interface)
    {
        return;
    }
    // A record that cannot be composed, or has Bus without Index, ends the
    // probe with the library's error; the interface stays uninitialised.
    linkMidplane(composedRecord(match));
    publishRecord(interface, std::move(match.record), discovery.midplanesFound,
                  "midplanes", rules::midplanesFoundFile,
                  "hwtopod start save json");
}

} // namespace Platform
