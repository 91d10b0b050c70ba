// The probes of machines that take each VPD object as it comes: backplanes,
// risers and midplanes matched against the rule files one by one.

#include "i2cLink.hpp"
#include "platformBase.hpp"
#include "probeHelpers.hpp"
#include "rules/rules.hpp"

#include <stdexcept>

namespace Platform
{

using hwtopod::readVpdNumber;
using namespace probe;
namespace rules = hwtopod::rules;

std::string backplaneTypeOf(const hwtopod::VpdCache& objects)
{
    for (const auto& [objectPath, properties] : objects)
    {
        auto pos = properties.find("PosIdValue");
        const auto value =
            pos == properties.end() ? 0 : readVpdNumber(pos->second);
        if (value == 0xDC || value == 0xDD || value == 0xE4)
        {
            return "E3.S";
        }
    }
    return "NormalBP";
}

std::shared_ptr<hwtopod::dbus::Interface> Base::addEntryInterface(
    const std::string& prefix, const nlohmann::json& entry)
{
    const std::string element =
        blanksToUnderscores(entry.at("Name").get<std::string>());
    const std::string interfaceName = entry.at("Interface").get<std::string>();
    if (!acceptEntryNames(element, interfaceName))
    {
        return nullptr;
    }
    return addDbusInterface(prefix + element, interfaceName);
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
        case 0x50:
            updateProductName();
            [[fallthrough]];
        case 0x70:
        case 0x74:
            if (bpProbeStatic)
            {
                probeBpVpddStatic(path, posId);
            }
            else
            {
                probeBpVpddDynamic(path, posId);
            }
            return;
        case 0x81:
            if (midplaneProbeEnabled)
            {
                probeChassisMidplaneBaseOnPdbStatic(path, posId);
            }
            return;
        case 0xE0:
            if (riserProbeStatic)
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

bool Base::acceptMatch(const rules::BoardMatch& match)
{
    rules::logLines(match.lines);
    if (!match.failure.empty())
    {
        throw std::runtime_error(match.failure);
    }
    return match.found();
}

std::shared_ptr<hwtopod::dbus::Interface> Base::addBoardInterface(
    const std::string& objectPath, const std::string& element,
    const std::string& interfaceName, bool& duplicate)
{
    duplicate = false;
    if (!acceptEntryNames(element, interfaceName))
    {
        return nullptr;
    }
    auto interface = addDbusInterface(objectPath, interfaceName);
    duplicate = !interface;
    return interface;
}

void Base::publishStep(const std::string& vpdPath,
                       const std::function<void()>& step)
{
    try
    {
        step();
    }
    catch (const std::exception& e)
    {
        logCritical() << "Exception in probeCachedVpdd for VPDD path "
                      << vpdPath << ": " << e.what();
    }
}

void Base::linkBackplane(const nlohmann::json& record)
{
    if (record.contains("BackplaneId") && record.contains("BusNumber"))
    {
        hwtopod::createI2cLink(hwtopod::DeviceType::Backplane,
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
    if (!backplanesData || !trdBackplanes)
    {
        logError() << "hwtopod TRD files are not loaded";
        return;
    }
    auto found = discovery.vpdObjects.find(path);
    if (found == discovery.vpdObjects.end())
    {
        logError() << "probeBpVpddStatic: path " << path << " was not found";
        return;
    }
    if (bpTypeKeyed && discovery.backplaneType == "NONE")
    {
        discovery.backplaneType = backplaneTypeOf(discovery.vpdObjects);
    }
    rules::Selectors select;
    if (bpTypeKeyed)
    {
        select.backplaneType = discovery.backplaneType;
    }
    auto match = rules::matchStaticBackplane(*backplanesData, *trdBackplanes,
                                             found->second, posId, select);
    if (!acceptMatch(match))
    {
        return;
    }
    const std::string element = blanksToUnderscores(match.name);
    bool duplicate = false;
    auto interface = addBoardInterface("/chassis/bp/" + element, element,
                                       match.interface, duplicate);
    if (duplicate)
    {
        return;
    }
    rules::logLines(match.recordLines);
    const auto& record = match.record;
    publishStep(path, [&]() { linkBackplane(record); });
    if (!record.contains("VirtualBP"))
    {
        publishStep(path, [&]() {
            hwtopod::sendPresentEvent(
                hwtopod::DeviceType::Backplane, true,
                numberAs<unsigned>(record.at("BackplaneId")), "", false);
        });
    }
    publishRecord(interface, std::move(match.record), discovery.backplanesFound,
                  "backplanes", rules::backplanesFoundFile,
                  "hwtopod start save json ");
}

// The I2C links of a riser's PCIe slots: consecutive buses from BUS and
// BusOffset, a position without a slot using one up.
void Base::linkRiserSlots(const nlohmann::json& record)
{
    if (record.contains("PCIeSlot") && record.contains("BUS"))
    {
        const unsigned offset =
            record.contains("BusOffset")
                ? rules::numberIf<unsigned>(record.at("BusOffset")).value_or(1)
                : 1;
        const unsigned first = numberAs<unsigned>(record.at("BUS")) + offset;
        const auto& slots = record.at("PCIeSlot");
        if (slots.is_array())
        {
            for (std::size_t i = 0; i < slots.size(); ++i)
            {
                // 0 or less, or no number: a position without a slot.
                const auto slot = rules::numberIf<unsigned>(slots[i]);
                if (slot && *slot > 0)
                {
                    hwtopod::createI2cLink(hwtopod::DeviceType::PcieCard, *slot,
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
    if (!risersData || !trdRisers)
    {
        logError() << "hwtopod TRD files are not loaded";
        return;
    }
    auto found = discovery.vpdObjects.find(path);
    if (found == discovery.vpdObjects.end())
    {
        logError() << "probeRiserVpddStatic: path " << path << " was not found";
        return;
    }
    const auto& vpd = found->second;
    const nlohmann::json wanted(posId);
    for (const auto& rule : *risersData)
    {
        logInfo() << "Check with " << jsonText(rule, "Name");
        if (!keyEquals(rule, "POSID", wanted))
        {
            logInfo() << "probeRiserVpddStatic PosIdValue not match: " << posId
                      << "->" << jsonText(rule, "POSID");
            continue;
        }
        logInfo() << "probeRiserVpddStatic PosIdValue found: " << posId;
        if (!vpd.contains("VpdLocation"))
        {
            logWarning() << "hwtopod no RISER location found on "
                         << vpdText(vpd, "VpdName");
            continue;
        }
        const auto location = readVpdNumber(vpd.at("VpdLocation"));
        logInfo() << "probeRiserVpddStatic check location: " << location;

        const nlohmann::json* entry = nullptr;
        nlohmann::json record;
        try
        {
            for (const auto& candidate : *trdRisers)
            {
                if (keyEquals(candidate, "Location",
                              nlohmann::json(location)) &&
                    (keyEquals(candidate, "PosID", wanted) ||
                     keyEquals(candidate, "PosID", nlohmann::json(0))))
                {
                    entry = &candidate;
                    break;
                }
                if (!candidate.is_object())
                {
                    throw std::invalid_argument(
                        "riser topology entry is no object: " +
                        candidate.dump());
                }
            }
            if (entry == nullptr)
            {
                logInfo() << "probeRiserVpddStatic cannot find riser ";
                continue;
            }
            logInfo() << "probeRiserVpddStatic find riser ";
            record = rules::recordTemplate(rule, "com.halvex.hwtopod.riser");
        }
        catch (const std::exception& e)
        {
            logCritical() << "Exception in probeRiserVpddStatic: " << e.what();
            continue;
        }

        auto interface = addEntryInterface("/chassis/riser/", *entry);
        if (!interface)
        {
            return;
        }
        rules::fillRecord(record, entryProperties(*entry), vpd,
                          rules::staticProbeLog("riserKey"));

        linkRiserSlots(record);
        sendRiserPresence(record);
        publishRecord(interface, std::move(record), discovery.risersFound,
                      "risers", rules::risersFoundFile,
                      "hwtopod start save json ");
        return;
    }
}

void Base::probeChassisMidplaneBaseOnPdbStatic(const std::string& path,
                                               std::uint64_t posId)
{
    if (!powerBackplanesData || !trdMidplanes)
    {
        logError() << "hwtopod TRD files are not loaded";
        return;
    }
    auto found = discovery.vpdObjects.find(path);
    if (found == discovery.vpdObjects.end())
    {
        logError() << "probeChassisMidplaneBaseOnPdbStatic: path " << path
                   << " was not found";
        return;
    }
    const auto& vpd = found->second;
    const nlohmann::json wanted(posId);
    for (const auto& rule : *powerBackplanesData)
    {
        logInfo() << "Check with " << jsonText(rule, "Name");
        if (!keyEquals(rule, "POSID", wanted))
        {
            logInfo() << "probeChassisMidplaneBaseOnPdbStatic PosIdValue not "
                         "match: "
                      << posId << "->" << jsonText(rule, "POSID");
            continue;
        }
        logInfo() << "probeChassisMidplaneBaseOnPdbStatic PosID found: "
                  << posId;

        const nlohmann::json* entry = nullptr;
        nlohmann::json record;
        try
        {
            for (const auto& candidate : *trdMidplanes)
            {
                if (keyEquals(candidate, "PwrBpPosID", wanted))
                {
                    entry = &candidate;
                    break;
                }
            }
            if (entry == nullptr)
            {
                logWarning() << "hwtopod cannot find midplane";
                return;
            }
            logInfo() << "hwtopod find midplane";
            record = rules::recordTemplate(rule, "com.halvex.hwtopod.midplane");
        }
        catch (const std::exception& e)
        {
            logCritical()
                << "Exception in probeChassisMidplaneBaseOnPdbStatic: "
                << e.what();
            return;
        }

        auto interface = addEntryInterface("/chassis/midplane/", *entry);
        if (!interface)
        {
            return;
        }
        rules::fillRecord(record, entryProperties(*entry), vpd,
                          rules::staticProbeLog("midplaneKey"));
        if (record.contains("Bus"))
        {
            hwtopod::createI2cLink(hwtopod::DeviceType::Midplane,
                                   numberAs<unsigned>(record.at("Index")),
                                   numberAs<unsigned>(record.at("Bus")));
        }
        else
        {
            logWarning() << "Midplane's I2C bus was not found in setting ";
        }
        publishRecord(interface, std::move(record), discovery.midplanesFound,
                      "midplanes", rules::midplanesFoundFile,
                      "hwtopod start save json");
        return;
    }
}

} // namespace Platform
