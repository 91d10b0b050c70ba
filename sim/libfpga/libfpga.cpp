// Development and test stand-in of the FPGA register library: every register
// space is an image file in the directory named by HALVEX_FPGA_IMAGES.

#include "fpga/libfpga.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>

namespace halvex_fpga
{

namespace
{
constexpr unsigned spaceSize = 1024;
constexpr unsigned blockSize = 16;
constexpr unsigned blockCount = 64;

std::mutex accessMutex;
// Reads made so far of each image file in this process; the first-N-fail
// files count against it.
std::map<std::string, unsigned>& readCounts()
{
    static std::map<std::string, unsigned> counts;
    return counts;
}

std::string imageDirectory()
{
    const char* directory = std::getenv("HALVEX_FPGA_IMAGES");
    return directory == nullptr ? std::string() : std::string(directory);
}

// The number in the file beside an image that makes its first reads fail,
// 0 without such a file.
unsigned failingReads(const std::string& imagePath)
{
    std::ifstream file(imagePath + ".fail");
    unsigned count = 0;
    if (file >> count)
    {
        return count;
    }
    return 0;
}

void trace(const std::string& directory, const std::string& name,
           unsigned block, unsigned offset, unsigned length, int result)
{
    const std::string logPath = directory + "/access.log";
    std::ifstream probe(logPath);
    if (!probe)
    {
        return;
    }
    probe.close();
    std::ofstream log(logPath, std::ios::app);
    log << name << " block " << block << " offset " << offset << " length "
        << length << " result " << result << '\n';
}

int readSpace(const std::string& name, Operation op, unsigned block,
              unsigned offset, unsigned length, std::span<char> buffer)
{
    std::lock_guard lock(accessMutex);
    const std::string directory = imageDirectory();
    int result = 0;
    const unsigned start = block * blockSize + offset;
    if (op != Operation::read || block >= blockCount || offset >= blockSize ||
        length == 0 || buffer.size() != length || length > spaceSize - start)
    {
        result = -EINVAL;
    }
    else if (directory.empty())
    {
        result = -ENOENT;
    }
    else
    {
        const std::string imagePath = directory + "/" + name;
        std::ifstream image(imagePath, std::ios::binary);
        unsigned& done = readCounts()[imagePath];
        const unsigned failing = failingReads(imagePath);
        ++done;
        if (!image)
        {
            result = -ENOENT;
        }
        else if (done <= failing)
        {
            result = -EIO;
        }
        else
        {
            // Bytes past the end of a short file read as zero.
            std::fill(buffer.begin(), buffer.end(), '\0');
            image.seekg(start);
            if (image)
            {
                image.read(buffer.data(), length);
            }
        }
    }
    trace(directory, name, block, offset, length, result);
    return result;
}
} // namespace

int rawNormalAccess(Operation op, unsigned block, unsigned offset,
                    unsigned length, std::span<char> buffer)
{
    return readSpace("local.img", op, block, offset, length, buffer);
}

int rawRemoteNormalAccess(unsigned remote, Operation op, unsigned block,
                          unsigned offset, unsigned length,
                          std::span<char> buffer)
{
    return readSpace("remote" + std::to_string(remote) + ".img", op, block,
                     offset, length, buffer);
}

int rawRemoteAdiAccess(unsigned remote, Operation op, unsigned adiBlock,
                       unsigned adiOffset, unsigned block, unsigned offset,
                       unsigned length, std::span<char> buffer)
{
    return readSpace("remote" + std::to_string(remote) + "-adi-" +
                         std::to_string(adiBlock) + "-" +
                         std::to_string(adiOffset) + ".img",
                     op, block, offset, length, buffer);
}

} // namespace halvex_fpga
