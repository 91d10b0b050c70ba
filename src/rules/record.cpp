#include "common/logging.hpp"
#include "rules/matcher.hpp"
#include "rules/rules.hpp"

#include <string>

namespace hwtopod::rules
{

namespace
{
// An INFO line, into sink when there is one, else to the log.
void say(MatchLines* sink, std::string text)
{
    if (sink != nullptr)
    {
        sink->push_back({LogLevel::info, std::move(text)});
    }
    else
    {
        logInfo() << text;
    }
}

CompositionLog dynamicLog(const std::string& keyWord,
                          const std::string& basedWord, MatchLines* sink)
{
    CompositionLog log;
    log.placeholderReplaced = [keyWord, sink](const std::string& placeholder,
                                              const nlohmann::json& value) {
        say(sink, "Update " + keyWord + " instance key " + placeholder +
                      " => " + value.dump());
    };
    log.afterProperties = [basedWord, sink]() {
        say(sink, "Update " + basedWord + " instance based on VPDD");
    };
    log.vpdMissing = [sink](const std::string& propertyName) {
        say(sink, "Unable to find propertyName " + propertyName);
    };
    return log;
}

template <typename Callback, typename... Args>
void report(const Callback& callback, const Args&... args)
{
    if (callback)
    {
        callback(args...);
    }
}
} // namespace

CompositionLog staticProbeLog(std::string_view sectionKey, MatchLines* sink)
{
    CompositionLog log;
    log.beforeProperty =
        [section = std::string(sectionKey),
         sink](const std::string& placeholder, const std::string& key) {
        say(sink,
            "[STATE] placeholder " + placeholder + " " + section + " " + key);
    };
    log.vpdFound = [sink](const std::string& propertyName) {
        say(sink, "[STATE] propertyName " + propertyName);
    };
    return log;
}

CompositionLog dynamicBackplaneLog(MatchLines* sink)
{
    return dynamicLog("BP", "BP", sink);
}

CompositionLog dynamicRiserLog(MatchLines* sink)
{
    return dynamicLog("Riser", "riser", sink);
}

nlohmann::json recordTemplate(const nlohmann::json& rule,
                              std::string_view templateKey)
{
    if (rule.is_object())
    {
        auto found = rule.find(templateKey);
        if (found != rule.end())
        {
            return *found;
        }
    }
    return nullptr;
}

void fillRecord(nlohmann::json& record, const nlohmann::json& properties,
                const VpdProperties& vpd, const CompositionLog& log)
{
    if (!record.is_null() && !record.is_object())
    {
        // A template of another kind: the library's own error.
        (void)record.at("");
    }
    if (properties.is_object())
    {
        // JSON objects keep their keys sorted, so both walks below go in
        // sorted key order.
        for (const auto& [key, value] : properties.items())
        {
            const std::string placeholder = "$" + key;
            report(log.beforeProperty, placeholder, key);
            bool replaced = false;
            for (auto& slot : record)
            {
                if (slot.is_string() &&
                    slot.get_ref<const std::string&>() == placeholder)
                {
                    slot = value;
                    report(log.placeholderReplaced, placeholder, value);
                    replaced = true;
                    break;
                }
            }
            if (!replaced)
            {
                record[key] = value;
            }
        }
    }
    report(log.afterProperties);

    for (auto& slot : record)
    {
        if (!slot.is_string())
        {
            continue;
        }
        const auto& text = slot.get_ref<const std::string&>();
        if (text.find('$') == std::string::npos)
        {
            continue;
        }
        // The first character goes, whatever it is: "$Name" names "Name",
        // and "a$b" names "$b".
        const std::string propertyName = text.substr(1);
        auto found = vpd.find(propertyName);
        if (found == vpd.end())
        {
            report(log.vpdMissing, propertyName);
            continue;
        }
        report(log.vpdFound, propertyName);
        slot = vpdValueToJson(found->second);
    }
}

nlohmann::json composeRecord(
    const nlohmann::json& rule, std::string_view templateKey,
    const nlohmann::json& entry, const VpdProperties& vpd,
    const CompositionLog& log)
{
    nlohmann::json record = recordTemplate(rule, templateKey);
    static const nlohmann::json noProperties = nlohmann::json::object();
    const nlohmann::json* properties = &noProperties;
    if (entry.is_object())
    {
        auto found = entry.find("Properties");
        if (found != entry.end())
        {
            properties = &*found;
        }
    }
    fillRecord(record, *properties, vpd, log);
    return record;
}

} // namespace hwtopod::rules
