// Board discovery of the volume-server family: every VPD object at once,
// once the VPD service is ready, held against the FPGA's picture.

#include "dbus/client.hpp"
#include "i2cLink.hpp"
#include "platformHighvol.hpp"
#include "probeHelpers.hpp"
#include "rules/rules.hpp"

namespace Platform
{

using hwtopod::ConfigMismatchKind;
using hwtopod::DeviceType;
using hwtopod::readVpdNumber;
using namespace probe;
namespace rules = hwtopod::rules;

namespace
{
constexpr auto statusPath = "/com/halvex/platform/basecfg";
constexpr auto statusInterface = "com.halvex.hwtopod.status.backplane";

// A property read as a number, entering an empty one when it is absent.
std::uint64_t numberOrEnter(VpdProperties& vpd, const char* name)
{
    return readVpdNumber(vpd[name]);
}

bool hasLocation(const nlohmann::json& element)
{
    if (element.is_object() && !element.contains("Location"))
    {
        // A topology entry without a location fits nothing.
        return false;
    }
    // at() throws for an element that is no object: the caller reports it.
    (void)element.at("Location");
    return true;
}

bool locationIs(const nlohmann::json& element, std::uint64_t location)
{
    return element.at("Location") == nlohmann::json(location);
}

bool containsName(const nlohmann::json& list, const std::string& name)
{
    return std::any_of(list.begin(), list.end(), [&](const auto& item) {
        return item == nlohmann::json(name);
    });
}
// Whether a riser topology entry fits the riser at location with posId,
// with the machine's SKU names.
bool riserEntryFits(const nlohmann::json& element, std::uint64_t location,
                    std::uint64_t posId, const std::string& front,
                    const std::string& rear)
{
    if (!element.is_object())
    {
        // Reported by the caller as a rule it cannot use.
        throw std::invalid_argument(
            "riser topology entry is no object: " + element.dump());
    }
    if (!element.contains("Location") || !element.contains("PosID") ||
        !element.at("Location").is_number() || !element.at("PosID").is_number())
    {
        return false;
    }
    const bool located = locationIs(element, location);
    const auto& posIdValue = element.at("PosID");
    if ((rear == "NONE" && front == "NONE") || !element.contains("SkuConfig"))
    {
        return located && (posIdValue == nlohmann::json(posId) ||
                           posIdValue == nlohmann::json(0));
    }
    const auto& skuConfig = element.at("SkuConfig");
    if (skuConfig.is_string())
    {
        logInfo() << "riser[SkuConfig] is string";
    }
    else if (skuConfig.is_object())
    {
        logInfo() << "riser[SkuConfig] is object";
    }
    else if (!skuConfig.is_array())
    {
        return false;
    }
    std::string sku;
    const nlohmann::json side =
        element.contains("Properties") && element.at("Properties").is_object()
            ? element.at("Properties").value("Location", nlohmann::json())
            : nlohmann::json();
    if (side == "Front" && front != "NONE")
    {
        sku = front;
    }
    else if (side == "Rear" && rear != "NONE")
    {
        sku = rear;
    }
    else
    {
        return false;
    }
    if (!located || posIdValue != nlohmann::json(posId))
    {
        return false;
    }
    if (skuConfig.is_array())
    {
        return containsName(skuConfig, sku);
    }
    return skuConfig == nlohmann::json(sku);
}

} // namespace

void Highvol::probeCachedVpdd()
{
    if (cachedVpdDone)
    {
        return;
    }
    if (!hwDiscoveryDone)
    {
        // The closing check compares VPD with the FPGA's picture: it waits
        // until the read-out and the presence analysis have ended. This runs
        // on the discovery worker, so the daemon's objects keep answering.
        logInfo() << "probeCachedVpdd waits for the FPGA read-out";
        waitForHardwareDiscovery();
    }

    backplaneType = "NormalBP";
    for (const auto& [path, vpd] : vpdObjects)
    {
        auto pos = vpd.find("PosIdValue");
        const auto value = pos == vpd.end() ? 0 : readVpdNumber(pos->second);
        if (value == 0xDC || value == 0xDD || value == 0xE4)
        {
            backplaneType = "E3.S";
            break;
        }
    }

    std::vector<std::string> paths;
    paths.reserve(vpdObjects.size());
    for (const auto& entry : vpdObjects)
    {
        paths.push_back(entry.first);
    }
    for (const auto& path : paths)
    {
        try
        {
            auto& vpd = vpdObjects.at(path);
            const auto vpdId = numberOrEnter(vpd, "VpdId");
            const auto posId = numberOrEnter(vpd, "PosIdValue");
            logInfo() << "-> probeCachedVpdd : VPDID " << vpdId << ", POSID "
                      << posId << ", Path " << path;
            switch (vpdId)
            {
                case 0x50:
                    updateProductName();
                    probeBpVpddDynamic(path, posId);
                    break;
                case 0x70:
                case 0x74:
                    probeBpVpddDynamic(path, posId);
                    break;
                case 0xE0:
                    probeRiserVpddDynamic(path, posId);
                    break;
                default:
                    if (path.find("CPU") != std::string::npos)
                    {
                        probeCpu(path);
                    }
                    break;
            }
        }
        catch (const std::exception& e)
        {
            logCritical() << "Exception in probeCachedVpdd for VPDD path "
                          << path << ": " << e.what();
        }
    }

    for (const auto& [riser, queued] : fpgaMatchQueue)
    {
        const std::string name = "Slot " + std::to_string(riser) + " Riser";
        logError() << "BMC didn't detect PCIe Riser " << riser;
        hwtopod::sendConfigMismatchEvent(DeviceType::SlotRiser,
                                         ConfigMismatchKind::NotDetected, name,
                                         "BMC");
        if (riser == 0 || riser > 64)
        {
            continue;
        }
        const bool unconfirmed =
            fpgaRiserSlots.test(riser - 1) && !vpdRiserSlots.test(riser - 1);
        if (!unconfirmed)
        {
            continue;
        }
        for (const auto& entry : pcieSlotMap)
        {
            if (!entry.isRiser() || entry.riser() != riser)
            {
                continue;
            }
            const unsigned slot = entry.slot();
            if (slot == 0 || slot > riserTopology.size())
            {
                continue;
            }
            const auto& status = riserTopology[slot - 1];
            if (status.cageMatch() == 0)
            {
                logError()
                    << "PCIe <Slot " << riser
                    << " riser> has location mismatch status for PCIe slot "
                    << slot;
                hwtopod::sendConfigMismatchEvent(
                    DeviceType::SlotRiser, ConfigMismatchKind::WrongLocation,
                    name, "");
            }
            if (status.cableMatch() == 0)
            {
                logError()
                    << "PCIe <Slot " << riser
                    << " riser> has connection mismatch status for PCIe slot "
                    << slot;
                if (oldRisers.test(riser - 1))
                {
                    hwtopod::sendConfigMismatchEvent(
                        DeviceType::SlotRiser,
                        ConfigMismatchKind::CableMisconnected, name,
                        "to correct location");
                }
            }
        }
    }
    cachedVpdDone = true;
    // Tells a watcher of the log (the simulator, a field engineer) that the
    // boards have been walked and the books closed.
    logInfo() << "Board discovery has ended";
}

void Highvol::probeBpVpddDynamic(const std::string& path, std::uint64_t posId)
{
    if (!backplanesData || !trdBackplanes)
    {
        logError() << "hwtopod TRD files are not loaded ";
        return;
    }
    auto found = vpdObjects.find(path);
    if (found == vpdObjects.end())
    {
        logError() << "probeVpdd: path " << path << " was not found";
        return;
    }
    const auto& vpd = found->second;
    const nlohmann::json entries = trdBackplanes->at(backplaneType);
    const bool openLoop = getFpgaDeviceState(89);
    const nlohmann::json wanted(posId);

    for (const auto& rule : *backplanesData)
    {
        if (!keyEquals(rule, "POSID", wanted))
        {
            continue;
        }
        if (!vpd.contains("VpdLocation"))
        {
            logInfo() << "hwtopod no BP location found on "
                      << vpdText(vpd, "VpdName");
            continue;
        }
        const auto location = readVpdNumber(vpd.at("VpdLocation"));
        logInfo() << "Found BP POSID:" << hex16(posId) << "(" << posId
                  << ") location: " << location
                  << " name: " << jsonText(rule, "Name");

        const nlohmann::json* entry = nullptr;
        nlohmann::json record;
        try
        {
            const std::string front = skuNames["Front"];
            const std::string rear = skuNames["Rear"];
            for (const auto& element : entries)
            {
                if (!hasLocation(element))
                {
                    continue;
                }
                bool fits = false;
                const bool located = locationIs(element, location);
                if (element.contains("OpenLoop"))
                {
                    fits = located &&
                           element.at("OpenLoop") == nlohmann::json(openLoop);
                }
                else if (element.contains("PosID"))
                {
                    fits = located && element.at("PosID") == wanted;
                }
                else if (element.contains("SkuConfig") &&
                         element.at("SkuConfig").is_array() &&
                         !element.at("SkuConfig").empty() && front != "NONE")
                {
                    fits = located &&
                           containsName(element.at("SkuConfig"), front);
                }
                else if (element.contains("SkuConfig") &&
                         element.at("SkuConfig").is_array() &&
                         !element.at("SkuConfig").empty() && rear != "NONE")
                {
                    fits = located &&
                           containsName(element.at("SkuConfig"), rear);
                }
                else
                {
                    fits = located;
                }
                if (fits)
                {
                    entry = &element;
                    break;
                }
            }
            if (entry == nullptr)
            {
                logInfo() << "probeBpVpddDynamic cannot find bp ";
                continue;
            }
            record =
                rules::recordTemplate(rule, "com.halvex.hwtopod.backplane");
        }
        catch (const std::exception& e)
        {
            logCritical() << "Exception in probeBpVpddDynamic: " << e.what();
            continue;
        }

        const std::string name =
            blanksToUnderscores(entry->at("Name").get<std::string>());
        const std::string interfaceName =
            entry->at("Interface").get<std::string>();
        if (!acceptEntryNames(name, interfaceName))
        {
            return;
        }
        const std::string objectPath = "/chassis/bp/" + name;
        logInfo() << "probeBpVpddDynamic set (" << name << ") dbus path to "
                  << objectPath;
        auto interface = addDbusInterface(objectPath, interfaceName);
        if (!interface)
        {
            // Published already by an earlier probe of the same board: its
            // link, event, FRU name and record are there, and are not made
            // twice.
            return;
        }
        rules::fillRecord(record, entryProperties(*entry), vpd,
                          rules::dynamicBackplaneLog());

        if (record.contains("BackplaneId") && record.contains("BusNumber"))
        {
            hwtopod::createI2cLink(DeviceType::Backplane,
                                   numberAs<unsigned>(record.at("BackplaneId")),
                                   numberAs<unsigned>(record.at("BusNumber")));
        }
        else
        {
            logWarning() << "BusNumber or BackplaneId did not find in setting ";
        }
        const auto backplaneId = numberAs<unsigned>(record.at("BackplaneId"));
        std::string connector;
        if (record.contains("Connector"))
        {
            connector =
                "PWR_" +
                std::to_string(numberAs<unsigned>(record.at("Connector")));
        }
        if (backplaneId == 0)
        {
            connector = "M.2_PWR";
        }
        hwtopod::sendPresentEvent(DeviceType::Backplane, true, backplaneId,
                                  connector, false);

        const auto id = numberAs<std::uint8_t>(record.at("BackplaneId"));
        const std::string format = vpdText(vpd, "VpdFormat");
        if (id != 0)
        {
            updateFruName(path, format, DeviceType::Backplane, id, "");
            updateBackplaneStatus(id);
        }

        publishRecord(interface, std::move(record), backplanesFound,
                      "backplanes", rules::backplanesFoundFile,
                      "Finally save BP json.");
        return;
    }
}

void Highvol::updateBackplaneStatus(std::uint8_t id)
{
    auto interface = findDbusInterface(statusPath, statusInterface);
    if (!interface)
    {
        return;
    }
    logInfo() << "Interface " << statusInterface << " is found in path "
              << statusPath;
    const std::string property =
        "BP_" + std::to_string(static_cast<unsigned>(id)) + "_INSTALLED";
    logInfo() << "Update backplane " << property << " status ";
    backplaneInstalled[property] = true;
    if (interface->isInitialized() && interface->hasProperty(property))
    {
        interface->setProperty(property, true);
    }
}

void Highvol::probeRiserVpddDynamic(const std::string& path,
                                    std::uint64_t posId)
{
    logInfo() << "Probe riser vpd dynamic";
    if (!risersData || !trdRisers)
    {
        logError() << "hwtopod TRD files are not loaded ";
        return;
    }
    auto found = vpdObjects.find(path);
    if (found == vpdObjects.end())
    {
        logError() << "probeVpdd: path " << path << " was not found";
        return;
    }
    const auto& vpd = found->second;
    const nlohmann::json wanted(posId);

    for (const auto& rule : *risersData)
    {
        if (!keyEquals(rule, "POSID", wanted))
        {
            continue;
        }
        if (!vpd.contains("VpdLocation"))
        {
            logInfo() << "hwtopod no RISER location found on "
                      << vpdText(vpd, "VpdName");
            continue;
        }
        const auto location = readVpdNumber(vpd.at("VpdLocation"));
        logInfo() << "Found Riser POSID:" << hex16(posId) << "(" << posId
                  << ") location: " << location
                  << " name: " << jsonText(rule, "Name");

        const nlohmann::json* entry = nullptr;
        nlohmann::json record;
        try
        {
            const std::string rear = skuNames["Rear"];
            const std::string front = skuNames["Front"];
            for (const auto& element : *trdRisers)
            {
                if (riserEntryFits(element, location, posId, front, rear))
                {
                    entry = &element;
                    break;
                }
            }
            if (entry == nullptr)
            {
                logError() << "Probe dynamic riser vpd, cannot find riser ";
                continue;
            }
            record = rules::recordTemplate(rule, "com.halvex.hwtopod.riser");
        }
        catch (const std::exception& e)
        {
            logCritical() << "Exception when probing dynamic riser vpd: "
                          << e.what();
            continue;
        }

        const std::string name = entry->at("Name").get<std::string>();
        const std::string interfaceName =
            entry->at("Interface").get<std::string>();
        if (!acceptEntryNames(nonAlnumToUnderscores(name), interfaceName))
        {
            return;
        }
        const std::string objectPath =
            "/chassis/riser/" + nonAlnumToUnderscores(name);
        logInfo() << "Probe dynamic Riser vpd, set (" << name
                  << ") dbus path to " << objectPath;
        auto interface = addDbusInterface(objectPath, interfaceName);
        rules::fillRecord(record, entryProperties(*entry), vpd,
                          rules::dynamicRiserLog());
        if (!record.contains("RiserSlot"))
        {
            logError() << "Unable found RiserSlot of TRD obj: " << name;
            return;
        }
        const auto slot = numberAs<std::uint64_t>(record.at("RiserSlot"));
        if (slot > 31)
        {
            logError() << "Riser slot index error";
            return;
        }
        if (slot > 0)
        {
            if (riserSlotsProbed.test(slot - 1))
            {
                logError()
                    << "Riser slot index error, need review TRD, conflected to "
                    << slot;
                return;
            }
            riserSlotsProbed.set(slot - 1);
        }
        if (!interface)
        {
            // The object is on the bus already; its checks, FRU name and
            // record were made with it and are not made twice.
            return;
        }
        checkRiserConnection(record, name);
        updateFruName(path, vpdText(vpd, "VpdFormat"), DeviceType::PcieRiser,
                      static_cast<std::uint8_t>(slot), name);
        publishRecord(interface, std::move(record), risersFound, "risers",
                      rules::risersFoundFile, "Finally save riser json.");
        return;
    }
}

void Highvol::checkRiserConnection(const nlohmann::json& riser,
                                   std::string riserName)
{
    const auto riserNumber = numberAs<std::uint64_t>(riser.at("RiserSlot"));
    if (!riser.contains("PCIeSlot") || !riser.contains("BUS"))
    {
        logError() << "Riser should has PCIeSlot and BUS configured!";
        return;
    }
    const auto& slots = riser.at("PCIeSlot");
    if (!slots.is_array())
    {
        logError() << "Riser should has PCIeSlot configured!";
        return;
    }
    const auto bus = numberAs<unsigned>(riser.at("BUS"));
    const bool riserPresent = riserNumber >= 1 && riserNumber <= 64 &&
                              riserPresence.test(riserNumber - 1);
    for (std::size_t i = 0; i < slots.size(); ++i)
    {
        const auto slot = numberAs<std::uint64_t>(slots[i]);
        if (slot == 0)
        {
            logWarning() << riserName << " Pcie slot index error:"
                         << "0";
            continue;
        }
        if (slot > 30)
        {
            logWarning() << "Pcie slot index error: " << slot;
            continue;
        }
        hwtopod::createI2cLink(DeviceType::PcieCard,
                               static_cast<unsigned>(slot),
                               bus + 1 + static_cast<unsigned>(i));
        vpdRiserSlots.set(slot - 1);
        const auto& status = riserTopology[slot - 1];
        if (status.cageMatch() == 0)
        {
            if (!riserPresent)
            {
                continue;
            }
            hwtopod::sendConfigMismatchEvent(DeviceType::SlotRiser,
                                             ConfigMismatchKind::WrongLocation,
                                             riserName, "");
            logError() << riserName << " with wrong location ";
        }
        if (status.cableMatch() == 1 || !riserPresent ||
            !riser.contains("MCIO") || !riser.at("MCIO").is_array() ||
            riser.at("MCIO").empty())
        {
            continue;
        }
        const auto& cables = riser.at("MCIO");
        std::string text;
        if (cables.size() == 1)
        {
            text = "to " + cables[0].get<std::string>();
        }
        else if (cables.size() == 2)
        {
            text = "CEMA::" + cables[0].get<std::string>() +
                   "::CEMB::" + cables[1].get<std::string>();
        }
        if (oldRisers.test(slot - 1))
        {
            hwtopod::sendConfigMismatchEvent(
                DeviceType::SlotRiser, ConfigMismatchKind::CableMisconnected,
                riserName, text);
        }
        logError() << " Signal cable of old " << riserName
                   << " is misconnected, should connect " << text;
    }

    const std::string displayName =
        "<PCIe Slot " + std::to_string(riserNumber) + " Riser>";
    if (!riser.contains("Connector"))
    {
        hwtopod::sendPresentEvent(DeviceType::SlotRiser, true,
                                  static_cast<unsigned>(riserNumber), "",
                                  false);
        logError() << "Connector of " << displayName
                   << " was not found in setting ";
        return;
    }
    const std::string connector =
        "PWR_" + std::to_string(numberAs<unsigned>(riser.at("Connector")));
    logInfo() << "Power Connector of " << displayName
              << " was found in setting: " << connector;
    hwtopod::sendPresentEvent(DeviceType::SlotRiser, true,
                              static_cast<unsigned>(riserNumber), connector,
                              false);
    auto queued = fpgaMatchQueue.find(static_cast<std::uint32_t>(riserNumber));
    if (queued != fpgaMatchQueue.end())
    {
        logInfo() << "FPGA also detected " << displayName;
        fpgaMatchQueue.erase(queued);
        logInfo() << "Remain " << fpgaMatchQueue.size()
                  << " PCIe Slot Riser(s) in FPGA match queue";
    }
    else
    {
        logError() << "FPGA didn't detect " << displayName;
        hwtopod::sendConfigMismatchEvent(DeviceType::SlotRiser,
                                         ConfigMismatchKind::NotDetected,
                                         riserName, "FPGA");
    }
}

} // namespace Platform
