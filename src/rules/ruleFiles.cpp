#include "common/logging.hpp"
#include "common/paths.hpp"
#include "rules/rules.hpp"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace hwtopod::rules
{

bool ruleFileMissing(const Root& root, const std::string& logicalPath)
{
    // An empty path would name the root itself once placed below it.
    if (logicalPath.empty())
    {
        return true;
    }
    std::error_code error;
    auto status = std::filesystem::status(root.path(logicalPath), error);
    return error || status.type() == std::filesystem::file_type::not_found;
}

nlohmann::json parseRuleFile(const Root& root, const std::string& logicalPath,
                             TopLevel expected)
{
    std::ifstream stream(root.path(logicalPath));
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
    const Root& root, std::string_view name, const std::string& logicalPath,
    TopLevel expected)
{
    if (ruleFileMissing(root, logicalPath))
    {
        logWarning() << "[STATE0] CANNOT FIND THE JSON " << name
                     << ", PATH = " << logicalPath;
        return nullptr;
    }
    try
    {
        return std::make_shared<nlohmann::json>(
            parseRuleFile(root, logicalPath, expected));
    }
    catch (const std::exception& e)
    {
        logCritical() << "Exception in loadTrd : " << name << " " << e.what();
    }
    return nullptr;
}

} // namespace hwtopod::rules
