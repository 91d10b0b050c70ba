// FPGA read-out of the hardware thread: waiting for the FPGA service, the
// bulk register read, the device table scan, the riser read-out, fan types
// and the closing loop's block refresh and cooling call.
#include "common/paths.hpp"
#include "common/sleep.hpp"
#include "cooling.hpp"
#include "dbus/client.hpp"
#include "fpga/deviceTable.hpp"
#include "fpga/fpgaImages.hpp"
#include "fpga/readout.hpp"
#include "fpga/registerAccess.hpp"
#include "platformHighvol.hpp"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace Platform
{

using hwtopod::bitsetFromBytes;
using hwtopod::bitsetString;
using hwtopod::hexDump;

namespace
{
constexpr std::uint32_t localDevice = 0;
constexpr std::uint32_t remoteDevice = 1;
constexpr std::uint32_t adiDevice = 0x00011408;

constexpr std::size_t at(std::size_t block, std::size_t offset)
{
    return block * 16 + offset;
}

std::string deviceId(std::uint32_t id)
{
    std::array<char, 11> text{};
    std::snprintf(text.data(), text.size(), "0x%08X", id);
    return text.data();
}

bool nodeExists(const hwtopod::Root& root, std::string_view path)
{
    std::error_code error;
    return std::filesystem::exists(root.path(path), error);
}

const char* chars(const std::uint8_t* bytes)
{
    return reinterpret_cast<const char*>(bytes);
}
} // namespace

void Highvol::waitForFpga()
{
    const auto& nodes = hwtopod::fpgaDeviceNodes();
    while (true)
    {
        // One node is enough; finding the last one ends the wait at once.
        bool found = false;
        for (std::size_t row = 0; row < nodes.size(); ++row)
        {
            const auto& path = nodes[row].path;
            for (int test = 0; test < 5; ++test)
            {
                if (nodeExists(seams.root, path))
                {
                    logInfo() << "[INIT] FIND THE FPGA DEV, PATH = " << path;
                    if (row + 1 == nodes.size())
                    {
                        return;
                    }
                    found = true;
                    break;
                }
                logInfo() << "[INIT] CANNOT FIND THE FPGA DEV, PATH = " << path;
                sleepSeconds(5);
            }
        }
        if (found)
        {
            return;
        }
        sleepSeconds(10);
    }
}

void Highvol::fpgaDump()
{
    try
    {
        logInfo() << "Try to dump fpga";
        auto& images = hwtopod::fpgaImages();
        for (const auto& node : hwtopod::fpgaDeviceNodes())
        {
            auto& image = images.try_emplace(node.id).first->second;
            logInfo() << "Dumpping FPGA registors,ID:" << deviceId(node.id);
            for (int attempt = 0; attempt < 10; ++attempt)
            {
                const int result = hwtopod::readRegisterSpace(
                    *seams.registers, node.id, image.regs);
                if (result == 0)
                {
                    image.valid = true;
                    break;
                }
                logInfo() << "Failed to read FPGA: " << deviceId(node.id)
                          << " error " << result;
                sleepSeconds(1);
            }
            sleepSeconds(1);
        }
        hardware.readout.fpgaBlock0 = images.at(localDevice).regs.data();
        hardware.readout.fpgaBlock1 = images.at(remoteDevice).regs.data();
    }
    catch (const std::exception& e)
    {
        logError() << "Exception in fpgaDump: " << e.what();
    }
}

void Highvol::hwDeviceDiscovery()
{
    // One byte for all rows: a failed read leaves the previous value, and
    // while device 1 is unread every row reads 0.
    std::uint8_t value = 0;
    for (auto& [key, row] : hwtopod::fpgaDeviceTable())
    {
        hwtopod::readFpgaDeviceBit(row.fpgaDevice, row.block, row.offset,
                                   row.bit, &value);
        row.present = row.inverted != (value != 0);
        logInfo() << key << ". hwDeviceDiscovery: device " << row.name
                  << (row.present ? " is present" : " is absent");
        hardware.readout.fpgaDevices[key] = DeviceState{row.name, row.present};
    }
}

void Highvol::readRiserTopology()
{
    auto& images = hwtopod::fpgaImages();
    const auto& remote = images.at(remoteDevice);
    if (!remote.valid)
    {
        logWarning() << "Error: Remote FPGA not ready";
        return;
    }
    const std::uint8_t* regs = remote.regs.data();

    hardware.readout.pcieCardPresence =
        bitsetFromBytes(chars(regs + at(25, 12)), 3);
    logInfo()
        << "Dump FPGA riser presence from Block 25 offset 0C to offset 0E";
    logInfo() << hexDump(chars(regs + at(25, 12)), 3, 16);
    logInfo() << "pcieCardPrsnt "
              << bitsetString(hardware.readout.pcieCardPresence);

    const auto adi = images.find(adiDevice);
    if (adi == images.end() || !adi->second.valid)
    {
        logWarning()
            << "Unable to get Riser ADI block, read Riser status from block 24/25";
        readRiserStatus(regs);
        return;
    }
    readRiserAdiMap(regs, adi->second.regs.data());
}

// The riser status of a machine without the ADI block: one status byte a
// position, from block 24 into 25, and the presence from block 25.
void Highvol::readRiserStatus(const std::uint8_t* regs)
{
    logInfo() << "Dump FPGA riser topology map from Block 24 offset 01";
    logInfo() << hexDump(chars(regs + at(24, 0)),
                         hardware.readout.riserTopology.size(), 16);
    for (std::size_t i = 0; i < hardware.readout.riserTopology.size(); ++i)
    {
        hardware.readout.riserTopology[i] = hwtopod::RiserTopologyEntry{};
        hardware.readout.riserTopology[i].bytes[3] = regs[at(24, 0) + i];
    }
    hardware.readout.riserPresence =
        bitsetFromBytes(chars(regs + at(25, 8)), 3);
    logInfo() << "Dump FPGA riser presence from Block 25 offset 08";
    logInfo() << hexDump(chars(regs + at(25, 8)), 3, 16);
    logInfo() << "Riser presence "
              << bitsetString(hardware.readout.riserPresence);
}

// The riser status from block 20 and the topology map of the ADI block.
void Highvol::readRiserAdiMap(const std::uint8_t* regs, const std::uint8_t* map)
{
    logInfo() << "Riser ADI block is ready, read Riser status from block 20/25";
    hardware.readout.pciePairing = bitsetFromBytes(chars(regs + at(20, 4)), 4);
    hardware.readout.riserPresence =
        bitsetFromBytes(chars(regs + at(20, 1)), 3);
    logInfo()
        << "Dump FPGA riser presence from Block 20 offset 01 to offset 03";
    logInfo() << hexDump(chars(regs + at(20, 1)), 3, 16);
    logInfo() << "Dump FPGA PCIe pairing from Block 20 offset 04 to offset 07";
    logInfo() << hexDump(chars(regs + at(20, 4)), 4, 16);

    constexpr std::size_t mapSize = sizeof(hardware.readout.riserTopology);
    static_assert(mapSize == 96);
    std::memcpy(hardware.readout.riserTopology.data(), map, mapSize);
    for (std::size_t i = 0; i < hardware.readout.riserTopology.size(); ++i)
    {
        // No expected connector for cable A: a riser without ADI data.
        if (hardware.readout.riserTopology[i].aExpected() == 0)
        {
            hardware.readout.oldRisers.set(i);
        }
    }
    logInfo() << "Old Riser " << bitsetString(hardware.readout.oldRisers);
    logInfo() << "Dump FPGA riser topology map from Block 20 offset 08 ADI";
    logInfo() << hexDump(chars(map), mapSize, 4);
}

void Highvol::getSkuConfig() {}

void Highvol::getFpgaFanInfo()
{
    logInfo() << "[platformHighvol] getFpgaFanInfo";
    // Valid or not: an unread image gives type 0 for every fan.
    const auto& regs = hwtopod::fpgaImages().at(remoteDevice).regs;
    const std::uint8_t fans56and78 = regs[at(12, 11)];
    const std::uint8_t fans12and34 = regs[at(12, 12)];
    const std::array<unsigned, 4> pairTypes = {
        (fans12and34 >> 2) & 0x03U, // fans 1 and 2
        fans12and34 & 0x03U,        // fans 3 and 4
        (fans56and78 >> 4) & 0x03U, // fans 5 and 6
        (fans56and78 >> 2) & 0x03U, // fans 7 and 8
    };
    for (unsigned fan = 1; fan <= 8; ++fan)
    {
        logInfo() << "[platformHighvol] getFpgaFanInfo 1U fan " << fan
                  << " fantype " << pairTypes[(fan - 1) / 2];
    }
}

void Highvol::refreshFpgaBlock12()
{
    // Without a finished fpgaDump there is no image to refresh.
    if (hardware.readout.fpgaBlock1 == nullptr)
    {
        return;
    }
    // The result is not looked at: a failed read leaves the block as it was
    // or partly written, and nothing reads the refreshed bytes at present.
    seams.registers->readRemote(
        0, 12, 0,
        std::span<std::uint8_t>(hardware.readout.fpgaBlock1 + at(12, 0), 16));
}

void Highvol::applyPlatformCoolingSettings()
{
    if (liquidCoolingApplied)
    {
        return;
    }
    const std::uint32_t type = 0;
    logInfo() << "applyPlatformCoolingSettings: type " << type;
    std::lock_guard lock(hwtopod::dbus::dbusClientMutex);
    try
    {
        setLiquidCooling(type);
        logInfo() << "setLiquidCooling called successfully!";
        liquidCoolingApplied = true;
    }
    catch (const hwtopod::dbus::Error& e)
    {
        // Tried again in the next pass of the closing loop.
        logCritical() << "setLiquidCooling failed: " << e.what();
    }
}

bool Base::getFpgaDeviceState(std::uint32_t key)
{
    return hardware.readout.getFpgaDeviceState(key);
}

} // namespace Platform
