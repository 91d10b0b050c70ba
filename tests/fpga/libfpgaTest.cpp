// The register library stand-in, through its three calls.

#include "sandbox.hpp"

#include <libfpga.hpp>

#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace hwtopod;
using halvex_fpga::Operation;

TEST(LibFpga, ServesImageFilesAsTheyAreAndFailsOnDemand)
{
    test::TempDir dir;
    setenv("HALVEX_FPGA_IMAGES", dir.path().c_str(), 1);
    std::string remote(1024, '\0');
    for (unsigned i = 0; i < remote.size(); ++i)
    {
        remote[i] = static_cast<char>(i * 7);
    }
    test::writeFile(dir / "remote0.img", remote);
    test::writeFile(dir / "remote0-adi-20-8.img", "\x11\x22");
    test::writeFile(dir / "local.img", "x");
    test::writeFile(dir / "local.img.fail", "2\n");
    test::writeFile(dir / "access.log", "");
    constexpr auto op = Operation::read;
    std::vector<char> buffer(1024);
    const auto text = [](const std::vector<char>& bytes) {
        return std::string(bytes.begin(), bytes.end());
    };

    ASSERT_EQ(halvex_fpga::rawRemoteNormalAccess(0, op, 0, 0, 1024, buffer), 0);
    EXPECT_EQ(text(buffer), remote);
    // A short file reads as zeros past its end.
    ASSERT_EQ(halvex_fpga::rawRemoteAdiAccess(0, op, 20, 8, 0, 0, 1024, buffer),
              0);
    EXPECT_EQ(text(buffer), "\x11\x22" + std::string(1022, '\0'));
    EXPECT_EQ(halvex_fpga::rawRemoteNormalAccess(1, op, 0, 0, 1024, buffer),
              -2);
    EXPECT_EQ(halvex_fpga::rawRemoteAdiAccess(0, op, 20, 9, 0, 0, 1024, buffer),
              -2);
    EXPECT_EQ(halvex_fpga::rawNormalAccess(op, 0, 0, 16, buffer), -22);

    // The first two reads of the local space fail, later ones work.
    EXPECT_EQ(halvex_fpga::rawNormalAccess(op, 0, 0, 1024, buffer), -5);
    EXPECT_EQ(halvex_fpga::rawNormalAccess(op, 0, 0, 1024, buffer), -5);
    EXPECT_EQ(halvex_fpga::rawNormalAccess(op, 0, 0, 1024, buffer), 0);
    EXPECT_EQ(buffer[0], 'x');

    // Block 12 is read from the file as it is now.
    std::vector<char> block(16);
    remote.replace(192, 16, std::string(16, '\x5A'));
    test::writeFile(dir / "remote0.img", remote);
    ASSERT_EQ(halvex_fpga::rawRemoteNormalAccess(0, op, 12, 0, 16, block), 0);
    EXPECT_EQ(text(block), std::string(16, '\x5A'));

    EXPECT_THAT(test::readFile(dir / "access.log"),
                testing::EndsWith(
                    "local.img block 0 offset 0 length 1024 result 0\n"
                    "remote0.img block 12 offset 0 length 16 result 0\n"));
    unsetenv("HALVEX_FPGA_IMAGES");
    EXPECT_EQ(halvex_fpga::rawNormalAccess(op, 0, 0, 1024, buffer), -2);
}
