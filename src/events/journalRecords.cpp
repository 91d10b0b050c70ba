#include "journalRecords.hpp"

#include "eventIds.hpp"
#include "events.hpp"

namespace hwtopod
{

JournalFields recordFields(sd_journal* journal)
{
    JournalFields fields;
    const void* data = nullptr;
    size_t length = 0;
    SD_JOURNAL_FOREACH_DATA(journal, data, length)
    {
        const std::string_view field(static_cast<const char*>(data), length);
        const auto equals = field.find('=');
        if (equals != std::string_view::npos)
        {
            fields[std::string(field.substr(0, equals))] =
                field.substr(equals + 1);
        }
    }
    return fields;
}

std::vector<std::string> splitEventArguments(std::string_view text)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (true)
    {
        const auto at = text.find(eventArgumentSeparator, start);
        parts.emplace_back(text.substr(start, at - start));
        if (at == std::string_view::npos)
        {
            return parts;
        }
        start = at + eventArgumentSeparator.size();
    }
}

std::string shortEventId(std::string_view fullId)
{
    const std::string_view prefix = redfishPrefix;
    if (fullId.starts_with(prefix))
    {
        fullId.remove_prefix(prefix.size());
    }
    return std::string(fullId);
}

} // namespace hwtopod
