#include "sandbox.hpp"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace hwtopod::test
{

TempDir::TempDir()
{
    std::string pattern =
        (std::filesystem::temp_directory_path() / "hwtopod-test-XXXXXX")
            .string();
    if (mkdtemp(pattern.data()) == nullptr)
    {
        throw std::runtime_error("mkdtemp failed");
    }
    root = pattern;
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
}

std::filesystem::path TempDir::operator/(const std::string& relative) const
{
    std::string trimmed = relative;
    while (!trimmed.empty() && trimmed.front() == '/')
    {
        trimmed.erase(0, 1);
    }
    return root / trimmed;
}

void writeFile(const std::filesystem::path& file, const std::string& text)
{
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream << text;
}

std::string readFile(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

std::size_t countInText(const std::string& text, const std::string& part)
{
    std::size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos;
         at = text.find(part, at + part.size()))
    {
        ++found;
    }
    return found;
}

namespace
{
std::filesystem::path fromEnvironment(const char* name)
{
    const char* value = std::getenv(name);
    if (value == nullptr)
    {
        throw std::runtime_error(std::string(name) + " is not set; run the "
                                                     "tests with meson test");
    }
    return value;
}
} // namespace

std::filesystem::path sourceRoot()
{
    return fromEnvironment("HWTOPOD_SOURCE_ROOT");
}

std::filesystem::path buildRoot()
{
    return fromEnvironment("HWTOPOD_BUILD_ROOT");
}

} // namespace hwtopod::test
