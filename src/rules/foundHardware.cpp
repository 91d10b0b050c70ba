#include "common/logging.hpp"
#include "common/paths.hpp"
#include "rules/rules.hpp"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace hwtopod::rules
{

void appendFound(nlohmann::json& document, const std::string& key,
                 nlohmann::json record)
{
    document[key].push_back(std::move(record));
}

std::string foundHardwareText(const nlohmann::json& document)
{
    // Objects keep their keys sorted. Text that is no valid UTF-8 (VPD bytes
    // taken for a string) is written with replacement characters rather than
    // not at all.
    return document.dump(4, ' ', false,
                         nlohmann::json::error_handler_t::replace);
}

bool saveFoundHardware(const nlohmann::json& document,
                       const std::string& logicalPath,
                       std::string_view startMessage)
{
    if (!startMessage.empty())
    {
        logInfo() << startMessage;
    }
    const std::filesystem::path target = rootPath(logicalPath);
    // A name of our own in the target's directory: rename() then replaces
    // the file in one step, and two writers never share a temporary file.
    std::filesystem::path temporary = target;
    temporary += ".tmp." + std::to_string(::getpid());
    bool written = false;
    try
    {
        const std::string text = foundHardwareText(document);
        {
            std::ofstream stream(temporary, std::ios::binary | std::ios::trunc);
            if (stream.good())
            {
                stream << text;
                stream.flush();
                written = stream.good();
            }
        }
        if (written)
        {
            std::error_code error;
            std::filesystem::rename(temporary, target, error);
            written = !error;
        }
    }
    catch (const std::exception&)
    {
        written = false;
    }
    if (!written)
    {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        logWarning() << "hwtopod cannot write data at " << logicalPath;
    }
    return written;
}

} // namespace hwtopod::rules
