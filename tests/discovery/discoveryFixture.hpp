#pragma once

// A platform on a private bus with a sandbox root: rule files, a sysfs I2C
// tree, and the journal read back.

#include "busClient.hpp"
#include "journal.hpp"
#include "privateBus.hpp"
#include "sandbox.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace hwtopod::test
{

inline constexpr const char* dataDir = "/usr/share/vantarack-bmc-apps/hwtopod/";

class DiscoveryFixture : public testing::Test
{
  protected:
    void SetUp() override
    {
        setenv("HWTOPOD_STATUS", "normal", 1);
        std::filesystem::create_directories(root / "var/configuration");
        std::filesystem::create_directories(root / "dev");
        journal = std::make_unique<JournalReader>();
    }
    void TearDown() override
    {
        unsetenv("HWTOPOD_STATUS");
    }

    void writeRule(const std::string& file, const nlohmann::json& document)
    {
        writeFile(root / (std::string(dataDir) + file), document.dump(2));
    }

    // /sys/bus/i2c/devices/i2c-<bus> as the kernel makes it: a relative link
    // into /sys/devices.
    void makeI2cBus(unsigned bus)
    {
        const auto name = "i2c-" + std::to_string(bus);
        std::filesystem::create_directories(
            root / ("sys/devices/platform/i2c/" + name));
        std::filesystem::create_directories(root / "sys/bus/i2c/devices");
        std::filesystem::create_symlink("../../../devices/platform/i2c/" + name,
                                        root / ("sys/bus/i2c/devices/" + name));
    }

    // Where /dev/<name> points, inside the sandbox.
    std::string linkTarget(const std::string& name)
    {
        return std::filesystem::read_symlink(root / ("dev/" + name)).string();
    }

    std::string sandboxPath(const std::string& absolute)
    {
        return (root / absolute).string();
    }

    // (id without prefix, args) of every record of this process since SetUp.
    std::multiset<std::pair<std::string, std::string>> eventsSoFar()
    {
        std::multiset<std::pair<std::string, std::string>> result;
        for (const auto& record : journal->settledEvents(getpid()))
        {
            auto args = record.find("REDFISH_MESSAGE_ARGS");
            result.emplace(record.at("REDFISH_MESSAGE_ID").substr(18),
                           args == record.end() ? "<none>" : args->second);
        }
        return result;
    }

    static std::size_t countId(
        const std::multiset<std::pair<std::string, std::string>>& events,
        const std::string& id)
    {
        return std::count_if(events.begin(), events.end(), [&](const auto& e) {
            return e.first == id;
        });
    }

    PrivateBus bus;
    TempDir root;
    std::unique_ptr<JournalReader> journal;
};

} // namespace hwtopod::test
