// The board matcher against the shipped rule documents and mutations of
// them, with VPD objects whose properties are of every D-Bus type or
// missing. It must never throw, and what it returns must hang together.

#include "fuzzSupport.hpp"
#include "rules/matcher.hpp"

#include <fstream>
#include <string>

using hwtopod::fuzz::check;
namespace rules = hwtopod::rules;

namespace
{
nlohmann::json shipped(const char* file)
{
    std::ifstream stream(std::string(HWTOPOD_DATA_DIR "/") + file);
    return nlohmann::json::parse(stream, nullptr, false);
}

// Replaces one value of the document, found by walking down as the input
// says, with a value from the input; a walk that ends at once replaces all.
void mutate(nlohmann::json& document, FuzzedDataProvider& data)
{
    nlohmann::json* node = &document;
    while ((node->is_object() || node->is_array()) && !node->empty() &&
           data.ConsumeBool())
    {
        auto item = node->begin();
        std::advance(item, data.ConsumeIntegralInRange<std::size_t>(
                               0, node->size() - 1));
        node = &*item;
    }
    auto value = nlohmann::json::parse(data.ConsumeRandomLengthString(256),
                                       nullptr, false);
    *node = value.is_discarded() ? nlohmann::json() : value;
}

void checkMatch(const rules::BoardMatch& match)
{
    if (match.found())
    {
        check(match.rule != nullptr);
        check(!match.failure.empty() || match.record.is_null() ||
              match.record.is_object());
    }
    else
    {
        check(match.record.is_null() && match.recordLines.empty());
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes,
                                      std::size_t size)
{
    static const nlohmann::json shippedTrd =
        shipped("kelvane80_1u_pass1_trd.json");
    static const nlohmann::json shippedBackplanes =
        shipped("bhs_backplanes.json");
    static const nlohmann::json shippedRisers = shipped("bhs_risers.json");
    check(shippedTrd.is_object() && shippedBackplanes.is_array());

    hwtopod::fuzz::setUpSandbox();
    FuzzedDataProvider data(bytes, size);
    auto trd = shippedTrd;
    auto backplanes = shippedBackplanes;
    auto risers = shippedRisers;
    for (auto* document : {&trd, &backplanes, &risers})
    {
        if (data.ConsumeBool())
        {
            mutate(*document, data);
        }
    }
    rules::Selectors selectors;
    selectors.backplaneType =
        data.ConsumeBool() ? "NormalBP" : data.ConsumeRandomLengthString(8);
    selectors.front = data.ConsumeBool() ? "NONE" : "SKU_A";
    selectors.rear = data.ConsumeBool() ? "NONE" : "SKU_B";
    selectors.openLoop = data.ConsumeBool();
    const auto posId = data.ConsumeIntegral<std::uint64_t>() &
                       (data.ConsumeBool() ? 0xFF : ~std::uint64_t{0});
    const auto vpd = hwtopod::fuzz::consumeProperties(data);

    const nlohmann::json none;
    const auto& bpSection = trd.is_object() && trd.contains("backplanes")
                                ? trd.at("backplanes")
                                : none;
    auto section = [&](const char* key) -> const nlohmann::json& {
        return trd.is_object() && trd.contains(key) ? trd.at(key) : none;
    };
    const auto& riserSection = section("risers");
    checkMatch(rules::matchDynamicBoard(rules::Board::backplane, backplanes,
                                        bpSection, vpd, posId, selectors));
    checkMatch(rules::matchDynamicBoard(rules::Board::riser, risers,
                                        riserSection, vpd, posId, selectors));
    checkMatch(rules::matchStaticBackplane(backplanes, bpSection, vpd, posId,
                                           selectors));
    checkMatch(rules::matchStaticRiser(risers, riserSection, vpd, posId));
    // No power board rules are shipped: the backplane rules stand in.
    checkMatch(
        rules::matchMidplane(backplanes, section("midplanes"), vpd, posId));
    return 0;
}
