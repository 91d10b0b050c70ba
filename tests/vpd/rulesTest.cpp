// Rule file loading, record composition and found-hardware files.

#include "rules/rules.hpp"

#include "sandbox.hpp"

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using hwtopod::DbusVariant;
using hwtopod::readVpdNumber;
using hwtopod::VpdProperties;
using hwtopod::test::readFile;
using Sandbox = hwtopod::test::TempDir;
using hwtopod::test::writeFile;
using nlohmann::json;
namespace rules = hwtopod::rules;

TEST(ReadVpdNumber, EachKindOfAlternative)
{
    EXPECT_EQ(readVpdNumber(DbusVariant(std::string("224"))), 0U);
    EXPECT_EQ(readVpdNumber(DbusVariant(std::int64_t{-1})), 0U);
    EXPECT_EQ(readVpdNumber(DbusVariant(std::uint8_t{224})), 224U);
    EXPECT_EQ(readVpdNumber(DbusVariant(true)), 1U);
}

TEST(RecordComposition, PlaceholdersThenVpdReferences)
{
    const VpdProperties vpd{
        {"X", DbusVariant(std::string("from-vpd"))},
        {"VpdName", DbusVariant(std::string("BP 1"))},
        {"$b", DbusVariant(std::uint8_t{7})},
        {"Lanes", DbusVariant(std::vector<std::string>{"J1", "J2"})},
        {"VpdFound", DbusVariant(true)},
        {"Size", DbusVariant(std::int16_t{-3})},
    };
    const json rule = {
        {"Name", "rule"},
        {"POSID", 224},
        {"com.halvex.hwtopod.backplane",
         {{"A", "$X"},
          {"B", "$X"},
          {"Name", "$VpdName"},
          {"Mid", "a$b"},
          {"Cables", "$Lanes"},
          {"Found", "$VpdFound"},
          {"Size", "$Size"},
          {"Gone", "$Nowhere"},
          {"Fixed", 3}}}};
    const json entry = {{"Name", "BP 1"},
                        {"Properties", {{"X", 1}, {"Extra", {1, 2}}}}};

    // Only the first value equal to the placeholder is replaced, the second
    // one is left for the VPD; a key with no placeholder is added.
    const json record = rules::composeRecord(
        rule, "com.halvex.hwtopod.backplane", entry, vpd, {});
    const json expected = {
        {"A", 1},         {"B", "from-vpd"},        {"Name", "BP 1"},
        {"Mid", 7},       {"Cables", {"J1", "J2"}}, {"Found", true},
        {"Size", -3},     {"Gone", "$Nowhere"},     {"Fixed", 3},
        {"Extra", {1, 2}}};
    EXPECT_EQ(record, expected);
    EXPECT_TRUE(record["Mid"].is_number_unsigned());
    EXPECT_TRUE(record["Size"].is_number_integer());

    // Without VPD the second placeholder stays as it is.
    EXPECT_EQ(rules::composeRecord(rule, "com.halvex.hwtopod.backplane", entry,
                                   {}, {})["B"],
              "$X");

    // No template: the Properties are the record.
    const json plain = rules::composeRecord(
        {{"Name", "r"}, {"POSID", 1}}, "com.halvex.hwtopod.backplane",
        {{"Properties", {{"BackplaneId", 2}, {"BusNumber", 7}}}}, vpd, {});
    EXPECT_EQ(plain, json({{"BackplaneId", 2}, {"BusNumber", 7}}));

    // No Properties and no template: nothing at all.
    EXPECT_TRUE(
        rules::composeRecord(json::array(), "k", json::object(), vpd, {})
            .is_null());

    // A template of the wrong kind is refused with the library's error, not
    // half-filled.
    EXPECT_THROW(rules::composeRecord({{"k", "$X"}}, "k",
                                      {{"Properties", {{"X", 1}}}}, vpd, {}),
                 json::type_error);
}

TEST(FoundHardware, FileTextAndFailedWrites)
{
    Sandbox sandbox;
    const hwtopod::Root root(sandbox.path());
    const std::string file = rules::risersFoundFile;
    std::filesystem::create_directories((sandbox / file).parent_path());
    writeFile(sandbox / file, "left by an earlier run");

    json document;
    rules::appendFound(document, "risers",
                       {{"RiserSlot", 1}, {"BUS", 20}, {"RiserName", "Größe"}});
    rules::appendFound(document, "risers", {{"RiserSlot", 3}});

    testing::internal::CaptureStderr();
    EXPECT_TRUE(rules::saveFoundHardware(root, document, file,
                                         "hwtopod start save json "));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[INFO] hwtopod start save json \n");
    EXPECT_EQ(readFile(sandbox / file),
              "{\n"
              "    \"risers\": [\n"
              "        {\n"
              "            \"BUS\": 20,\n"
              "            \"RiserName\": \"Größe\",\n"
              "            \"RiserSlot\": 1\n"
              "        },\n"
              "        {\n"
              "            \"RiserSlot\": 3\n"
              "        }\n"
              "    ]\n"
              "}");
    // Nothing but the result file is left in the directory.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(
                                (sandbox / file).parent_path()),
                            {}),
              1);

    // A directory that is not there: the warning, the document untouched.
    const json before = document;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(rules::saveFoundHardware(
        root, document, "/var/nowhere/backplanes_found.json", ""));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[WARNING] hwtopod cannot write data at "
              "/var/nowhere/backplanes_found.json\n");
    EXPECT_EQ(document, before);

    // Through the writer of a discovery: the last save of a file stands,
    // and a failed one is reported, once finish() has returned.
    testing::internal::CaptureStderr();
    {
        rules::FoundHardwareWriter writer;
        writer.save(root, json::object(), file, "");
        writer.save(root, before, file, "");
        writer.save(root, document, "/var/nowhere/risers_found.json", "");
        writer.finish();
        EXPECT_EQ(json::parse(readFile(sandbox / file)), before);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[WARNING] hwtopod cannot write data at "
              "/var/nowhere/risers_found.json\n");

    // A document of another shape cannot take a record.
    json wrong = {{"risers", 1}};
    EXPECT_THROW(rules::appendFound(wrong, "risers", {{"RiserSlot", 1}}),
                 json::type_error);
}

TEST(RuleFiles, DirectoriesAndEmptyPaths)
{
    // Missing, empty, broken and wrongly shaped files are covered with
    // loadTrd; here the cases that only the path test sees.
    Sandbox sandbox;
    const hwtopod::Root root(sandbox.path());
    writeFile(sandbox / "/data/array.json", "[{\"POSID\": 224.0}]");
    std::filesystem::create_directories(sandbox / "/data/dir.json");

    testing::internal::CaptureStderr();
    auto array = rules::loadRuleFile(root, "risersFile", "/data/array.json",
                                     rules::TopLevel::array);
    // The sandbox root itself must not pass for an empty path.
    EXPECT_EQ(rules::loadRuleFile(root, "risersFile", "", rules::TopLevel::any),
              nullptr);
    EXPECT_EQ(rules::loadRuleFile(root, "risersFile", "/data/dir.json",
                                  rules::TopLevel::any),
              nullptr);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_THAT(text, testing::StartsWith(
                          "[WARNING] [STATE0] CANNOT FIND THE JSON risersFile, "
                          "PATH = \n"
                          "[CRITICAL] Exception in loadTrd : risersFile "));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
    ASSERT_TRUE(array);
    // Numbers compare across kinds: 224.0 selects a PosIdValue of 224.
    EXPECT_EQ((*array)[0]["POSID"], json(std::uint64_t{224}));
}

} // namespace
