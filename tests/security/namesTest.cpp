// The checks that keep names from VPD and rule files in their place.

#include "common/names.hpp"

#include "common/jsonNumber.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace
{

const std::string nul("a\0b", 3);

// The bus library reads up to the first NUL: what stands after it must
// still count.
TEST(Names, NulByteIsRefusedThoughTheLibraryStopsBeforeIt)
{
    EXPECT_TRUE(hwtopod::isValidObjectPath("/chassis/a"));
    EXPECT_FALSE(hwtopod::isValidObjectPath("/chassis/" + nul));
    EXPECT_FALSE(hwtopod::isValidPathElement(nul));
    EXPECT_TRUE(hwtopod::isValidInterfaceName("com.halvex.a"));
    EXPECT_FALSE(hwtopod::isValidInterfaceName("com.halvex." + nul));
    EXPECT_FALSE(hwtopod::isValidInterfaceElement("a.b"));
}

TEST(Names, RefusalIsOneLineWhateverTheValueHolds)
{
    CaptureStderr();
    EXPECT_TRUE(hwtopod::acceptPathElement("PSU Name", "PSU0"));
    EXPECT_TRUE(hwtopod::acceptInterfaceElement("PSU Type", "PowerSupply"));
    EXPECT_EQ(GetCapturedStderr(), "");

    CaptureStderr();
    EXPECT_FALSE(hwtopod::acceptPathElement(
        "PSU Name", "x\n[INFO] forged line \"\\" + nul + "\xff"));
    EXPECT_EQ(GetCapturedStderr(),
              "[ERROR] Refused PSU Name \"x\\x0A[INFO] forged line "
              "\\x22\\x5Ca\\x00b\\xFF\": not an object path element (only "
              "letters, digits and _ are allowed)\n");

    CaptureStderr();
    EXPECT_FALSE(hwtopod::acceptPathElement("topology entry Name", ""));
    EXPECT_FALSE(hwtopod::acceptInterfaceElement("PSU Type", "a.b"));
    const auto log = GetCapturedStderr();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
    EXPECT_THAT(log, testing::HasSubstr(
                         "[ERROR] Refused topology entry Name \"\": empty"));
}

// Numbers from rule files and VPD: at each edge of the target's range, and
// JSON kinds whose plain conversion would be undefined or would wrap.
TEST(Numbers, OnlyThoseTheTypeHoldsExactlyConvert)
{
    using hwtopod::jsonInteger;
    using nlohmann::json;
    EXPECT_EQ(jsonInteger<std::uint8_t>(json(255)), 255);
    EXPECT_EQ(jsonInteger<std::uint8_t>(json(256)), std::nullopt);
    EXPECT_EQ(jsonInteger<std::uint32_t>(json(-1)), std::nullopt);
    EXPECT_EQ(jsonInteger<std::int32_t>(json(-2147483648)), INT32_MIN);
    EXPECT_EQ(jsonInteger<std::int64_t>(json(UINT64_MAX)), std::nullopt);
    EXPECT_EQ(jsonInteger<std::uint64_t>(json(8.88889e31)), std::nullopt);
    EXPECT_EQ(jsonInteger<std::uint64_t>(json(18446744073709551616.0)),
              std::nullopt);
    EXPECT_EQ(jsonInteger<std::int64_t>(json(-9223372036854775808.0)),
              INT64_MIN);
    EXPECT_EQ(jsonInteger<int>(json(2.0)), 2);
    EXPECT_EQ(jsonInteger<int>(json(2.5)), std::nullopt);
    EXPECT_EQ(jsonInteger<int>(json(std::nan(""))), std::nullopt);
    EXPECT_EQ(jsonInteger<int>(json("2")), std::nullopt);
    EXPECT_EQ(jsonInteger<int>(json(true)), std::nullopt);
    EXPECT_EQ(hwtopod::decimalInteger<unsigned>("12"), 12U);
    for (const char* bad : {"", "12a", " 12", "-1", "4294967296"})
    {
        EXPECT_EQ(hwtopod::decimalInteger<unsigned>(bad), std::nullopt) << bad;
    }
}

} // namespace
