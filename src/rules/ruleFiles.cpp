#include "common/logging.hpp"
#include "common/paths.hpp"
#include "rules/rules.hpp"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace hwtopod::rules
{

bool ruleFileMissing(const std::string& logicalPath)
{
    // An empty path would name HWTOPOD_ROOT itself once placed below it.
    if (logicalPath.empty())
    {
        return true;
    }
    std::error_code error;
    auto status = std::filesystem::status(rootPath(logicalPath), error);
    return error || status.type() == std::filesystem::file_type::not_found;
}

nlohmann::json parseRuleFile(const std::string& logicalPath, TopLevel expected)
{
    std::ifstream stream(rootPath(logicalPath));
    if (!stream.is_open())
    {
        throw std::runtime_error("cannot open " + logicalPath);
    }
    nlohmann::json document = nlohmann::json::parse(stream);
    if (expected == TopLevel::object && !document.is_object())
    {
        throw std::runtime_error(
            logicalPath + " is not a JSON object but " + document.type_name());
    }
    if (expected == TopLevel::array && !document.is_array())
    {
        throw std::runtime_error(
            logicalPath + " is not a JSON array but " + document.type_name());
    }
    return document;
}

std::shared_ptr<nlohmann::json> loadRuleFile(
    std::string_view name, const std::string& logicalPath, TopLevel expected)
{
    if (ruleFileMissing(logicalPath))
    {
        logWarning() << "[STATE0] CANNOT FIND THE JSON " << name
                     << ", PATH = " << logicalPath;
        return nullptr;
    }
    try
    {
        return std::make_shared<nlohmann::json>(
            parseRuleFile(logicalPath, expected));
    }
    catch (const std::exception& e)
    {
        logCritical() << "Exception in loadTrd : " << name << " " << e.what();
    }
    return nullptr;
}

} // namespace hwtopod::rules
