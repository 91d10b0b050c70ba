// The board matcher from JSON alone: which rule and entry a VPD object
// gets, the lines said on the way, and data that finds no board.

#include "rules/matcher.hpp"

#include <gtest/gtest.h>

using namespace hwtopod;
using nlohmann::json;
using rules::MatchLine;

namespace
{
const auto bpRules = json::parse(R"([
  {"Name": "First", "POSID": 112},
  {"Name": "Second", "POSID": 112.0,
   "com.halvex.hwtopod.backplane": {"BackplaneId": "$Id", "Name": "$VpdName"}}
])");
const auto bpTopology = json::parse(R"({"NormalBP": [
  {"Name": "BP 1", "Interface": "x.bp", "Location": 1, "OpenLoop": true,
   "Properties": {"Id": 9}},
  {"Name": "BP 1", "Interface": "x.bp", "Location": 1, "Properties": {"Id": 1}}
]})");

VpdProperties located(std::uint16_t location)
{
    return {{"VpdLocation", location}, {"VpdName", std::string("Front")}};
}
} // namespace

TEST(BoardMatcher, RulesEntriesAndSelectors)
{
    rules::Selectors normal;
    normal.backplaneType = "NormalBP";
    auto match = rules::matchDynamicBoard(rules::Board::backplane, bpRules,
                                          bpTopology, located(1), 112, normal);
    // The first rule takes the board; the open-loop entry needs the state.
    ASSERT_TRUE(match.found());
    EXPECT_EQ(match.rule, &bpRules[0]);
    EXPECT_EQ(match.entry, &bpTopology["NormalBP"][1]);
    EXPECT_EQ(match.record, json({{"Id", 1}}));
    normal.openLoop = true;
    match = rules::matchDynamicBoard(rules::Board::backplane, bpRules,
                                     bpTopology, located(1), 112, normal);
    EXPECT_EQ(match.entry, &bpTopology["NormalBP"][0]);

    // No location and no name: an empty name in the line, the next rule.
    match = rules::matchDynamicBoard(rules::Board::backplane, bpRules,
                                     bpTopology, {}, 112, normal);
    EXPECT_FALSE(match.found());
    EXPECT_TRUE(match.failure.empty());
    EXPECT_EQ(match.lines,
              std::vector<MatchLine>(2, {LogLevel::info,
                                         "hwtopod no BP location found on "}));

    // A backplane type the topology lacks gives no entries.
    rules::Selectors e3s;
    e3s.backplaneType = "E3.S";
    match = rules::matchDynamicBoard(rules::Board::backplane, bpRules,
                                     bpTopology, located(1), 112, e3s);
    EXPECT_FALSE(match.found());
    EXPECT_EQ(
        match.lines.back(),
        (MatchLine{LogLevel::info, "probeBpVpddDynamic cannot find bp "}));
    EXPECT_EQ(match.lines.size(), 4U);
    match =
        rules::matchStaticBackplane(bpRules, bpTopology, located(1), 112, e3s);
    EXPECT_EQ(match.lines.back(),
              (MatchLine{LogLevel::warning, "hwtopod cannot find bp "}));
    // A section that cannot be keyed by type fails the object.
    EXPECT_EQ(rules::matchStaticBackplane(bpRules, bpTopology["NormalBP"],
                                          located(1), 112, e3s)
                  .failure,
              "[json.exception.type_error.304] cannot use at() with array");

    // The second rule's template with a VPD reference; the static walk.
    match = rules::matchStaticBackplane(
        json::array({bpRules[1]}), bpTopology["NormalBP"], located(1), 112, {});
    ASSERT_TRUE(match.found());
    EXPECT_EQ(match.record, json({{"BackplaneId", 9}, {"Name", "Front"}}));
}

TEST(BoardMatcher, OddDataFindsNoBoardAndNeverThrows)
{
    rules::Selectors selectors;
    selectors.backplaneType = "NormalBP";
    const json riserTopology = json::parse(
        R"([5, {"Name": "R", "Interface": "x.r", "Location": 1, "PosID": 0}])");
    for (const json& rulesDocument :
         {json::parse(R"({"POSID": 224})"), json(224), json()})
    {
        auto match =
            rules::matchDynamicBoard(rules::Board::riser, rulesDocument,
                                     riserTopology, located(1), 224, selectors);
        EXPECT_FALSE(match.found()) << rulesDocument;
    }
    // An entry that is no object costs its rule, with the probe's line and
    // the library's error.
    auto match = rules::matchDynamicBoard(
        rules::Board::riser, json::parse(R"([{"POSID": 224}])"), riserTopology,
        located(1), 224, selectors);
    EXPECT_FALSE(match.found());
    EXPECT_EQ(match.lines.back(),
              (MatchLine{LogLevel::critical,
                         "Exception when probing dynamic riser vpd: "
                         "[json.exception.type_error.304] cannot use at() "
                         "with number"}));

    // A name that is no string fails the object, and says why.
    VpdProperties oddName{{"VpdName", std::uint32_t{7}}};
    match = rules::matchDynamicBoard(rules::Board::backplane, bpRules,
                                     bpTopology, oddName, 112, selectors);
    EXPECT_FALSE(match.failure.empty());

    // Numbers convert as the JSON library converts them; a float it cannot
    // convert, or another kind, throws.
    EXPECT_EQ(rules::numberAs<std::uint8_t>(json(258)), 2U);
    EXPECT_EQ(rules::numberAs<unsigned>(json(-1)), 4294967295U);
    EXPECT_EQ(rules::numberAs<std::uint8_t>(json(255.9)), 255U);
    EXPECT_THROW(rules::numberAs<std::uint8_t>(json(256.0)), std::out_of_range);
    EXPECT_THROW(rules::numberAs<unsigned>(json("2")), json::type_error);
}
