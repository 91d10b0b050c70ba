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

namespace
{
// 1024 bytes with a different pattern per space.
std::string image(unsigned seed)
{
    std::string bytes(1024, '\0');
    for (unsigned i = 0; i < bytes.size(); ++i)
    {
        bytes[i] = static_cast<char>((i * 7 + seed) & 0xFF);
    }
    return bytes;
}

class LibFpga : public testing::Test
{
  protected:
    LibFpga()
    {
        setenv("HALVEX_FPGA_IMAGES", dir.path().c_str(), 1);
    }
    ~LibFpga() override
    {
        unsetenv("HALVEX_FPGA_IMAGES");
    }
    test::TempDir dir;
};

constexpr auto readOp = Operation::read;
} // namespace

TEST_F(LibFpga, ServesEachSpaceFromItsImageFile)
{
    test::writeFile(dir / "local.img", image(1));
    test::writeFile(dir / "remote0.img", image(2));
    test::writeFile(dir / "remote0-adi-20-8.img", image(3));
    test::writeFile(dir / "remote1.img", "\x11\x22");
    test::writeFile(dir / "access.log", "");

    std::vector<char> buffer(1024);
    ASSERT_EQ(halvex_fpga::rawNormalAccess(readOp, 0, 0, 1024, buffer), 0);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), image(1));
    ASSERT_EQ(halvex_fpga::rawRemoteNormalAccess(0, readOp, 0, 0, 1024, buffer),
              0);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), image(2));
    ASSERT_EQ(
        halvex_fpga::rawRemoteAdiAccess(0, readOp, 20, 8, 0, 0, 1024, buffer),
        0);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), image(3));

    // Block 12, offset 3 is byte 195 of the space.
    std::vector<char> part(5);
    ASSERT_EQ(halvex_fpga::rawRemoteNormalAccess(0, readOp, 12, 3, 5, part), 0);
    EXPECT_EQ(std::string(part.begin(), part.end()), image(2).substr(195, 5));

    // A short file reads as zeros past its end.
    ASSERT_EQ(halvex_fpga::rawRemoteNormalAccess(1, readOp, 0, 0, 1024, buffer),
              0);
    EXPECT_EQ(buffer[0], '\x11');
    EXPECT_EQ(buffer[1], '\x22');
    EXPECT_EQ(std::string(buffer.begin() + 2, buffer.end()),
              std::string(1022, '\0'));

    // Missing images, another ADI address, bad arguments.
    EXPECT_EQ(halvex_fpga::rawRemoteNormalAccess(2, readOp, 0, 0, 1024, buffer),
              -2);
    EXPECT_EQ(
        halvex_fpga::rawRemoteAdiAccess(0, readOp, 20, 9, 0, 0, 1024, buffer),
        -2);
    EXPECT_EQ(halvex_fpga::rawNormalAccess(readOp, 64, 0, 16,
                                           std::span(buffer).first(16)),
              -22);
    EXPECT_EQ(halvex_fpga::rawNormalAccess(readOp, 63, 0, 32,
                                           std::span(buffer).first(32)),
              -22);
    EXPECT_EQ(halvex_fpga::rawNormalAccess(readOp, 0, 0, 16, buffer), -22);
    EXPECT_EQ(halvex_fpga::rawNormalAccess(static_cast<Operation>(1), 0, 0,
                                           1024, buffer),
              -22);

    const auto trace = test::readFile(dir / "access.log");
    EXPECT_THAT(trace,
                testing::HasSubstr(
                    "remote0.img block 12 offset 3 length 5 result 0\n"));
    EXPECT_THAT(trace,
                testing::HasSubstr("remote0-adi-20-9.img block 0 offset 0 "
                                   "length 1024 result -2\n"));

    unsetenv("HALVEX_FPGA_IMAGES");
    EXPECT_EQ(halvex_fpga::rawNormalAccess(readOp, 0, 0, 1024, buffer), -2);
}

TEST_F(LibFpga, FirstReadsFailAsTheFailFileSays)
{
    test::writeFile(dir / "remote0.img", image(4));
    test::writeFile(dir / "remote0.img.fail", "2\n");
    std::vector<char> buffer(1024);
    EXPECT_EQ(halvex_fpga::rawRemoteNormalAccess(0, readOp, 0, 0, 1024, buffer),
              -5);
    EXPECT_EQ(halvex_fpga::rawRemoteNormalAccess(0, readOp, 0, 0, 1024, buffer),
              -5);
    ASSERT_EQ(halvex_fpga::rawRemoteNormalAccess(0, readOp, 0, 0, 1024, buffer),
              0);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), image(4));
    EXPECT_EQ(halvex_fpga::rawRemoteNormalAccess(0, readOp, 0, 0, 1024, buffer),
              0);
    // The count is the process's own: the file is left as it was.
    EXPECT_EQ(test::readFile(dir / "remote0.img.fail"), "2\n");
}

TEST_F(LibFpga, EachReadSeesTheFileAsItIsNow)
{
    std::string bytes = image(5);
    test::writeFile(dir / "remote0.img", bytes);
    std::vector<char> block(16);
    ASSERT_EQ(halvex_fpga::rawRemoteNormalAccess(0, readOp, 12, 0, 16, block),
              0);
    EXPECT_EQ(std::string(block.begin(), block.end()), bytes.substr(192, 16));

    bytes.replace(192, 16, std::string(16, '\x5A'));
    test::writeFile(dir / "remote0.img", bytes);
    ASSERT_EQ(halvex_fpga::rawRemoteNormalAccess(0, readOp, 12, 0, 16, block),
              0);
    EXPECT_EQ(std::string(block.begin(), block.end()), std::string(16, '\x5A'));
}
