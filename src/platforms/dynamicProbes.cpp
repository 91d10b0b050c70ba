// Board discovery of the volume-server family: every VPD object at once,
// once the VPD service is ready, held against the FPGA's picture.

#include "common/vpdIds.hpp"
#include "dbus/client.hpp"
#include "fpga/deviceTable.hpp"
#include "i2cLink.hpp"
#include "platformHighvol.hpp"
#include "probeHelpers.hpp"
#include "rules/rules.hpp"

#include <optional>
#include <utility>

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
constexpr std::string_view notLoaded = "hwtopod TRD files are not loaded ";
// The highest riser slot a TRD entry may name, and the highest PCIe slot
// number a riser's record may name: the machine's rule files never go
// beyond them, and the riser slots probed are kept as bits.
constexpr std::uint64_t maxRiserSlot = 31;
constexpr std::uint64_t maxPcieSlot = 30;
// Riser numbers that stand for a bit of the FPGA's 64-bit sets.
constexpr std::size_t maxFpgaRiser = hwtopod::bitset64().size();

// A property read as a number, entering an empty one when it is absent.
std::uint64_t numberOrEnter(VpdProperties& vpd, const char* name)
{
    return readVpdNumber(vpd[name]);
}

} // namespace

void Highvol::probeCachedVpdd()
{
    if (discovery.cachedVpdDone)
    {
        return;
    }
    if (!hwDiscoveryDone())
    {
        // The closing check compares VPD with the FPGA's picture: it waits
        // until the read-out and the presence analysis have ended. This runs
        // on the discovery worker, so the daemon's objects keep answering.
        logInfo() << "probeCachedVpdd waits for the FPGA read-out";
        waitForHardwareDiscovery();
    }
    // Taken now, so that the closing check knows the risers to confirm even
    // when no probe looks at the picture before it. A read-out that is not
    // there by now is not taken during the walk (see riserChecksWaitForFpga).
    fpgaPicture();
    notifyDiscovery(false);
    discovery.riserChecksWaitForFpga = !discovery.fpga;

    discovery.backplaneType = backplaneTypeOf(discovery.vpdObjects);

    forEachCachedObject([this](const std::string& path) {
        probeCachedObject(path);
    });

    if (discovery.riserChecksWaitForFpga)
    {
        // The boards are published; the riser checks and the closing check
        // run once the read-out comes (fpgaReadoutArrived), so that no
        // riser is reported as missed by a side that has not looked yet.
        discovery.cachedVpdDone = true;
        return;
    }
    reportUnconfirmedRisers();
    discovery.cachedVpdDone = true;
    // Tells a watcher of the log (the simulator, a field engineer) that the
    // boards have been walked and the books closed.
    logInfo() << "Board discovery has ended";
    notifyDiscovery(true);
}

// Chosen for a read-out that comes after the walk: every riser found in it
// has its links, and gets now, in the order found, what its check holds
// against the FPGA's picture (location, cables, the connector and
// not-detected events); then the closing check runs, once. A riser whose
// check fails here (a cable name that is no string) has been published
// already; its failure is reported as during the walk.
void Highvol::fpgaReadoutArrived()
{
    if (!discovery.riserChecksWaitForFpga || !hwDiscoveryDone())
    {
        return;
    }
    discovery.riserChecksWaitForFpga = false;
    fpgaPicture();
    for (const auto& check : std::exchange(discovery.waitingRisers, {}))
    {
        try
        {
            for (const auto slot : check.slots)
            {
                judgeSlot(check, slot);
            }
            confirmRiserConnector(check);
        }
        catch (const std::exception& e)
        {
            logCritical() << "Exception in probeCachedVpdd for VPDD path "
                          << check.vpdPath << ": " << e.what();
        }
    }
    reportUnconfirmedRisers();
    logInfo() << "Board discovery has ended";
    notifyDiscovery(true);
}

// One object of the cache, probed by its kind.
void Highvol::probeCachedObject(const std::string& path)
{
    auto& vpd = discovery.vpdObjects.at(path);
    const auto vpdId = numberOrEnter(vpd, "VpdId");
    const auto posId = numberOrEnter(vpd, "PosIdValue");
    logInfo() << "-> probeCachedVpdd : VPDID " << vpdId << ", POSID " << posId
              << ", Path " << path;
    switch (vpdId)
    {
        case hwtopod::vpdId::productBackplane:
            updateProductName();
            probeBpVpddDynamic(path, posId);
            break;
        case hwtopod::vpdId::backplane:
        case hwtopod::vpdId::virtualBackplane:
            probeBpVpddDynamic(path, posId);
            break;
        case hwtopod::vpdId::riser:
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

// The closing check: each riser the FPGA reported and no VPD object
// confirmed gets its not-detected event and the reasons the FPGA's status
// gives for it.
void Highvol::reportUnconfirmedRisers()
{
    for (const auto& [riser, queued] : discovery.fpgaMatchQueue)
    {
        const std::string name = "Slot " + std::to_string(riser) + " Riser";
        logError() << "BMC didn't detect PCIe Riser " << riser;
        hwtopod::sendConfigMismatchEvent(DeviceType::SlotRiser,
                                         ConfigMismatchKind::NotDetected, name,
                                         "BMC");
        if (riser == 0 || riser > maxFpgaRiser)
        {
            continue;
        }
        const bool unconfirmed = fpgaPicture().fpgaRiserSlots.test(riser - 1) &&
                                 !discovery.vpdRiserSlots.test(riser - 1);
        if (!unconfirmed)
        {
            continue;
        }
        for (const auto& entry : fpgaPicture().pcieSlotMap)
        {
            if (!entry.isRiser() || entry.riser() != riser)
            {
                continue;
            }
            const unsigned slot = entry.slot();
            if (slot == 0 || slot > fpgaPicture().riserTopology.size())
            {
                continue;
            }
            const auto& status = fpgaPicture().riserTopology[slot - 1];
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
                if (fpgaPicture().oldRisers.test(riser - 1))
                {
                    hwtopod::sendConfigMismatchEvent(
                        DeviceType::SlotRiser,
                        ConfigMismatchKind::CableMisconnected, name,
                        "to correct location");
                }
            }
        }
    }
}

// The presence event of a backplane, naming its power connector.
void Highvol::sendBackplanePresence(const nlohmann::json& record)
{
    const auto backplaneId = numberAs<unsigned>(record.at("BackplaneId"));
    std::string connector;
    if (record.contains("Connector"))
    {
        connector = "PWR_" +
                    std::to_string(numberAs<unsigned>(record.at("Connector")));
    }
    if (backplaneId == 0)
    {
        connector = "M.2_PWR";
    }
    hwtopod::sendPresentEvent(DeviceType::Backplane, true, backplaneId,
                              connector, false);
}

rules::Selectors Highvol::selectors()
{
    rules::Selectors result;
    result.backplaneType = discovery.backplaneType;
    for (const auto& [side, name] : fpgaPicture().skuNames)
    {
        (side == "Front" ? result.front : result.rear) = name;
    }
    return result;
}

void Highvol::probeBpVpddDynamic(const std::string& path, std::uint64_t posId)
{
    const auto* cached =
        cachedVpd(backplanesData, trdBackplanes, path, notLoaded, "probeVpdd");
    if (cached == nullptr)
    {
        return;
    }
    const auto& vpd = *cached;
    if (!trdBackplanes->is_object() && !trdBackplanes->is_null())
    {
        // Keyed by backplane type: a section of another kind (an array)
        // cannot be looked up, and the object fails as a whole. A null
        // section holds no entries.
        (void)trdBackplanes->at(discovery.backplaneType);
    }
    auto select = selectors();
    select.openLoop = fpgaPicture().getFpgaDeviceState(
        hwtopod::deviceKey::kelvaneOpenLoopLeak);
    auto match =
        rules::matchDynamicBoard(rules::Board::backplane, *backplanesData,
                                 *trdBackplanes, vpd, posId, select);
    if (!acceptMatch(match))
    {
        return;
    }
    const std::string name = blanksToUnderscores(match.name);
    const std::string objectPath = "/chassis/bp/" + name;
    logInfo() << "probeBpVpddDynamic set (" << name << ") dbus path to "
              << objectPath;
    auto interface = addDbusInterface(objectPath, match.interface);
    if (!interface)
    {
        // Published already by an earlier probe of the same board: its link,
        // event, FRU name and record are there, and are not made twice.
        return;
    }
    // An exception from here on (a record that cannot be composed, no
    // BackplaneId, a VpdFormat that is no string, names the bus refuses at
    // the initialisation) ends the probe and goes to the caller; the
    // interface stays created and uninitialised.
    const auto& record = composedRecord(match);
    linkBackplane(record);
    sendBackplanePresence(record);
    const auto id = numberAs<std::uint8_t>(record.at("BackplaneId"));
    const std::string format = vpdText(vpd, "VpdFormat");
    if (id != 0)
    {
        updateFruName(path, format, DeviceType::Backplane, id, "");
        updateBackplaneStatus(id);
    }
    publishRecord(interface, std::move(match.record), discovery.backplanesFound,
                  "backplanes", rules::backplanesFoundFile,
                  "Finally save BP json.");
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
    discovery.backplaneInstalled[property] = true;
    if (interface->isInitialized() && interface->hasProperty(property))
    {
        interface->setProperty(property, true);
    }
}

void Highvol::probeRiserVpddDynamic(const std::string& path,
                                    std::uint64_t posId)
{
    logInfo() << "Probe riser vpd dynamic";
    const auto* cached =
        cachedVpd(risersData, trdRisers, path, notLoaded, "probeVpdd");
    if (cached == nullptr)
    {
        return;
    }
    const auto& vpd = *cached;
    auto match = rules::matchDynamicBoard(rules::Board::riser, *risersData,
                                          *trdRisers, vpd, posId, selectors());
    if (!acceptMatch(match))
    {
        return;
    }
    const std::string& name = match.name;
    const std::string element = nonAlnumToUnderscores(name);
    const std::string objectPath = "/chassis/riser/" + element;
    logInfo() << "Probe dynamic Riser vpd, set (" << name << ") dbus path to "
              << objectPath;
    auto interface = addDbusInterface(objectPath, match.interface);
    const auto& record = composedRecord(match);
    const auto slot = claimRiserSlot(record, name);
    if (!slot)
    {
        return;
    }
    if (!interface)
    {
        // The object is on the bus already: its checks, FRU name and record
        // were made with it and are not made twice.
        return;
    }
    // An exception from here on ends the probe and goes to the caller.
    if (discovery.riserChecksWaitForFpga)
    {
        // Without the FPGA's picture the riser gets now what needs none, so
        // that it has its links and a record the check cannot read ends the
        // probe here, as on the ordinary road; the rest waits for the
        // read-out.
        if (auto check = linkRiser(record, name, nullptr))
        {
            check->vpdPath = path;
            discovery.waitingRisers.push_back(std::move(*check));
        }
    }
    else
    {
        checkRiserConnection(record, name);
    }
    updateFruName(path, vpdText(vpd, "VpdFormat"), DeviceType::PcieRiser,
                  static_cast<std::uint8_t>(*slot), name);
    publishRecord(interface, std::move(match.record), discovery.risersFound,
                  "risers", rules::risersFoundFile, "Finally save riser json.");
}

// The riser number of a record, taken once: none when the record lacks it,
// it is out of range, or another riser has taken it already.
std::optional<std::uint64_t> Highvol::claimRiserSlot(
    const nlohmann::json& record, const std::string& name)
{
    if (!record.contains("RiserSlot"))
    {
        logError() << "Unable found RiserSlot of TRD obj: " << name;
        return std::nullopt;
    }
    // Read as an unsigned number: a negative one wraps above the bound. A
    // float that no unsigned number holds is above it as well.
    const auto slot = rules::wrappedUnsigned(record.at("RiserSlot"));
    if (!slot || *slot > maxRiserSlot)
    {
        logError() << "Riser slot index error";
        return std::nullopt;
    }
    if (*slot > 0)
    {
        if (discovery.riserSlotsProbed.test(*slot - 1))
        {
            logError()
                << "Riser slot index error, need review TRD, conflected to "
                << *slot;
            return std::nullopt;
        }
        discovery.riserSlotsProbed.set(*slot - 1);
    }
    return slot;
}

// The location and cable status the FPGA gives for one slot of a riser
// that the rules know.
void Highvol::judgeSlot(const RiserCheck& check, std::uint64_t slot)
{
    if (slot > fpgaPicture().riserTopology.size())
    {
        // A slot the FPGA has no status for: nothing to hold against it.
        return;
    }
    const bool riserPresent =
        check.number >= 1 && check.number <= maxFpgaRiser &&
        fpgaPicture().riserPresence.test(check.number - 1);
    const auto& riser = check.record;
    const auto& riserName = check.name;
    const auto& status = fpgaPicture().riserTopology[slot - 1];
    if (status.cageMatch() == 0)
    {
        if (!riserPresent)
        {
            return;
        }
        hwtopod::sendConfigMismatchEvent(DeviceType::SlotRiser,
                                         ConfigMismatchKind::WrongLocation,
                                         riserName, "");
        logError() << riserName << " with wrong location ";
    }
    if (status.cableMatch() == 1 || !riserPresent || !riser.contains("MCIO") ||
        !riser.at("MCIO").is_array() || riser.at("MCIO").empty())
    {
        return;
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
    if (fpgaPicture().oldRisers.test(slot - 1))
    {
        hwtopod::sendConfigMismatchEvent(DeviceType::SlotRiser,
                                         ConfigMismatchKind::CableMisconnected,
                                         riserName, text);
    }
    logError() << " Signal cable of old " << riserName
               << " is misconnected, should connect " << text;
}

void Highvol::checkRiserConnection(const nlohmann::json& riser,
                                   const std::string& riserName)
{
    auto check = linkRiser(
        riser, riserName, [this](const RiserCheck& linked, std::uint64_t slot) {
            judgeSlot(linked, slot);
        });
    if (check)
    {
        confirmRiserConnector(*check);
    }
}

std::optional<Highvol::RiserCheck> Highvol::linkRiser(
    const nlohmann::json& riser, const std::string& riserName,
    const std::function<void(const RiserCheck&, std::uint64_t)>& judge)
{
    RiserCheck check;
    check.record = riser;
    check.name = riserName;
    // The probe has seen to it that the number is at most maxRiserSlot.
    check.number = static_cast<unsigned>(
        rules::wrappedUnsigned(riser.at("RiserSlot")).value_or(0));
    if (!riser.contains("PCIeSlot") || !riser.contains("BUS"))
    {
        logError() << "Riser should has PCIeSlot and BUS configured!";
        return std::nullopt;
    }
    const auto& slots = riser.at("PCIeSlot");
    if (!slots.is_array())
    {
        logError() << "Riser should has PCIeSlot configured!";
        return std::nullopt;
    }
    for (std::size_t i = 0; i < slots.size(); ++i)
    {
        // Read as an unsigned number, so a position without a slot below 0
        // wraps above the bound; a float that no unsigned number holds is said
        // as it stands in the file. Either skips this slot alone.
        const auto slot = rules::wrappedUnsigned(slots[i]);
        if (slot == 0U)
        {
            logWarning() << riserName << " Pcie slot index error:"
                         << "0";
            continue;
        }
        if (!slot || *slot > maxPcieSlot)
        {
            logWarning() << "Pcie slot index error: "
                         << (slot ? std::to_string(*slot) : slots[i].dump());
            continue;
        }
        // BUS is read only when a link is made: a riser without slots to
        // link still reaches its connector steps. It converts as the link's
        // parameter takes it: -1 is bus 4294967295, and BUS + 1 wraps to 0.
        hwtopod::createI2cLink(
            seams.root, DeviceType::PcieCard, static_cast<unsigned>(*slot),
            numberAs<unsigned>(riser.at("BUS")) + 1 + static_cast<unsigned>(i));
        discovery.vpdRiserSlots.set(*slot - 1);
        check.slots.push_back(*slot);
        if (judge)
        {
            judge(check, *slot);
        }
    }
    if (riser.contains("Connector"))
    {
        check.connector =
            "PWR_" + std::to_string(numberAs<unsigned>(riser.at("Connector")));
    }
    return check;
}

// The presence event of a riser, naming its power connector, and the riser
// taken off the FPGA's queue, or the event that the FPGA missed it.
void Highvol::confirmRiserConnector(const RiserCheck& check)
{
    const std::string displayName =
        "<PCIe Slot " + std::to_string(check.number) + " Riser>";
    if (!check.connector)
    {
        hwtopod::sendPresentEvent(DeviceType::SlotRiser, true, check.number, "",
                                  false);
        logError() << "Connector of " << displayName
                   << " was not found in setting ";
        return;
    }
    logInfo() << "Power Connector of " << displayName
              << " was found in setting: " << *check.connector;
    hwtopod::sendPresentEvent(DeviceType::SlotRiser, true, check.number,
                              *check.connector, false);
    auto queued = discovery.fpgaMatchQueue.find(check.number);
    if (queued != discovery.fpgaMatchQueue.end())
    {
        logInfo() << "FPGA also detected " << displayName;
        discovery.fpgaMatchQueue.erase(queued);
        logInfo() << "Remain " << discovery.fpgaMatchQueue.size()
                  << " PCIe Slot Riser(s) in FPGA match queue";
    }
    else
    {
        logError() << "FPGA didn't detect " << displayName;
        hwtopod::sendConfigMismatchEvent(DeviceType::SlotRiser,
                                         ConfigMismatchKind::NotDetected,
                                         check.name, "FPGA");
    }
}

} // namespace Platform
