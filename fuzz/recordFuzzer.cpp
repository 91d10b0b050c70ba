// Record composition and rule matching: a rule, a topology entry and a VPD
// object from one input. Rule and entry are JSON text as the rule files hold
// it; the VPD object is decoded from the remaining bytes.

#include "fuzzSupport.hpp"
#include "platforms/probeHelpers.hpp"
#include "rules/rules.hpp"

#include <cstdlib>

using hwtopod::fuzz::check;

namespace rules = hwtopod::rules;

namespace
{
nlohmann::json parseOrNull(const std::string& text)
{
    return nlohmann::json::parse(text, nullptr, false);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes,
                                      std::size_t size)
{
    hwtopod::fuzz::setUpSandbox();
    FuzzedDataProvider data(bytes, size);
    const auto rule = parseOrNull(data.ConsumeRandomLengthString(2048));
    const auto entry = parseOrNull(data.ConsumeRandomLengthString(2048));
    const auto vpd = hwtopod::fuzz::consumeProperties(data);

    // Matching as the probes do it: POSID of the rule, Location and PosID
    // of the entry, against the VPD object's numbers.
    const auto posId = vpd.contains("PosIdValue")
                           ? hwtopod::readVpdNumber(vpd.at("PosIdValue"))
                           : 0;
    const auto location = vpd.contains("VpdLocation")
                              ? hwtopod::readVpdNumber(vpd.at("VpdLocation"))
                              : 0;
    (void)Platform::probe::keyEquals(rule, "POSID", nlohmann::json(posId));
    (void)Platform::probe::keyEquals(entry, "Location",
                                     nlohmann::json(location));
    (void)Platform::probe::keyEquals(entry, "PosID", nlohmann::json(posId));
    (void)Platform::probe::jsonText(rule, "Name");

    for (const char* key :
         {"com.halvex.hwtopod.backplane", "com.halvex.hwtopod.riser"})
    {
        nlohmann::json record;
        try
        {
            record = rules::composeRecord(rule, key, entry, vpd,
                                          rules::staticProbeLog("bpKey"));
        }
        catch (const std::runtime_error&)
        {
            // A template that is no object: the probe reports it.
            const auto start = rules::recordTemplate(rule, key);
            check(!start.is_null() && !start.is_object());
            continue;
        }
        check(record.is_null() || record.is_object());

        // Every key of Properties ends up in the record, as its own key or
        // in the place of its placeholder.
        if (entry.is_object() && entry.contains("Properties") &&
            entry.at("Properties").is_object() &&
            !entry.at("Properties").empty())
        {
            check(record.is_object());
        }

        // The probes read numbers of the record as unsigned, byte and
        // 64-bit values, as the JSON library converts them: a value of
        // another kind, or a float the conversion is undefined for, throws,
        // which the probe's guard reports; no conversion is ever undefined.
        if (record.is_object())
        {
            for (const auto& [key, value] : record.items())
            {
                try
                {
                    (void)Platform::probe::numberAs<unsigned>(value);
                    (void)Platform::probe::numberAs<std::uint8_t>(value);
                    (void)Platform::probe::numberAs<std::uint64_t>(value);
                }
                catch (const std::exception&)
                {}
            }
        }

        // Appending and writing the result file never throw, and what is
        // written reads back as one object with one key.
        nlohmann::json document;
        rules::appendFound(document, "backplanes", record);
        const auto text = rules::foundHardwareText(document);
        const auto back = nlohmann::json::parse(text, nullptr, false);
        check(back.is_object() && back.size() == 1 &&
              back.at("backplanes").size() == 1);
    }
    return 0;
}
