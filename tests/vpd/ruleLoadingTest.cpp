// Loading of the machine's rule files: every stage stands by itself, and a
// missing or broken file costs its message and nothing more.

#include "platforms/kelvane1u.hpp"
#include "sandbox.hpp"

#include <cstdlib>
#include <filesystem>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using hwtopod::test::readFile;
using hwtopod::test::sourceRoot;
using hwtopod::test::TempDir;
using hwtopod::test::writeFile;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr auto dataDir = "/usr/share/vantarack-bmc-apps/hwtopod/";
constexpr auto trdFile = "kelvane80_1u_pass1_trd.json";
constexpr auto backplanesFile = "bhs_backplanes.json";
constexpr auto risersFile = "bhs_risers.json";

// The three rule files of the machine, each shipped, replaced or left out.
struct RuleFiles
{
    std::optional<std::string> trd;
    std::optional<std::string> backplanes;
    std::optional<std::string> risers;
};

std::string shipped(const char* file)
{
    return readFile(sourceRoot() / "data" / file);
}

void place(const TempDir& root, const RuleFiles& files)
{
    const std::pair<const char*, const std::optional<std::string>*> all[] = {
        {trdFile, &files.trd},
        {backplanesFile, &files.backplanes},
        {risersFile, &files.risers}};
    for (const auto& [name, text] : all)
    {
        if (*text)
        {
            writeFile(root / (std::string(dataDir) + name), **text);
        }
    }
}

class RuleLoading : public testing::Test
{
  protected:
    // loadTrd and matchVpdd of a fresh platform; their log.
    std::string load(const RuleFiles& files)
    {
        place(root, files);
        platform = std::make_unique<Platform::Kelvane1u>(
            Platform::Seams{.root = hwtopod::Root(root.path())});
        CaptureStderr();
        EXPECT_EQ(platform->loadTrd(), 0);
        platform->matchVpdd();
        return GetCapturedStderr();
    }

    TempDir root;
    std::unique_ptr<Platform::Kelvane1u> platform;
};

const std::string powerWarning =
    "[WARNING] [STATE0] CANNOT FIND THE JSON powerBackplanesFiles, PATH = \n";
const std::string notLoaded =
    "[INFO] [Base::matchVpdd] start \n"
    "[ERROR] [Base::matchVpdd] TRD files are not loaded\n";

TEST_F(RuleLoading, MissingFiles)
{
    const std::string log = load({});
    EXPECT_EQ(log,
              "[WARNING] [STATE0] CANNOT FIND THE JSON bpTrdRules, PATH = "
              "/usr/share/vantarack-bmc-apps/hwtopod/"
              "kelvane80_1u_pass1_trd.json\n"
              "[WARNING] [STATE0] CANNOT FIND THE JSON backplanesFile, PATH = "
              "/usr/share/vantarack-bmc-apps/hwtopod/bhs_backplanes.json\n"
              "[WARNING] [STATE0] CANNOT FIND THE JSON risersFile, PATH = "
              "/usr/share/vantarack-bmc-apps/hwtopod/bhs_risers.json\n" +
                  powerWarning + notLoaded);
    EXPECT_FALSE(platform->bpTrdRules || platform->trdBackplanes ||
                 platform->backplanesData || platform->risersData);
}

TEST_F(RuleLoading, EmptyBrokenAndWrongFiles)
{
    // Empty and cut-short files; the stages after them still load.
    std::string log = load({"", "[{\"Name\": ", shipped(risersFile)});
    EXPECT_THAT(log, testing::StartsWith(
                         "[CRITICAL] Exception in loadTrd : bpTrdRules "));
    EXPECT_THAT(
        log, HasSubstr("\n[CRITICAL] Exception in loadTrd : backplanesFile "));
    EXPECT_THAT(log, testing::EndsWith("\n" + powerWarning + notLoaded));
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 5) << log;
    EXPECT_FALSE(platform->bpTrdRules || platform->backplanesData);
    EXPECT_TRUE(platform->risersData);

    // Top levels of the wrong kind. A topology file that is no object is
    // kept, without sections; rule files of any kind load.
    log = load({"[1, 2]", "{\"POSID\": 1}", "\"risers\""});
    EXPECT_EQ(log, "[CRITICAL] Exception in loadTrd : bpTrdRules top level "
                   "is a JSON array, not an object\n" +
                       powerWarning + notLoaded);
    EXPECT_TRUE(platform->bpTrdRules && platform->backplanesData &&
                platform->risersData);
    EXPECT_FALSE(platform->trdBackplanes || platform->trdRisers ||
                 platform->trdMidplanes);

    // Absent sections are set, and empty.
    load({"{\"risers\": []}", shipped(backplanesFile), "[]"});
    ASSERT_TRUE(platform->trdBackplanes && platform->trdMidplanes);
    EXPECT_TRUE(platform->trdBackplanes->is_null());
    EXPECT_TRUE(platform->trdRisers->is_array());
}

} // namespace
