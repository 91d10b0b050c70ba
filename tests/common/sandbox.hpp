#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace hwtopod::test
{

// A temporary directory removed with everything below it at the end.
class TempDir
{
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    TempDir(TempDir&&) = delete;
    TempDir& operator=(TempDir&&) = delete;

    const std::filesystem::path& path() const
    {
        return root;
    }
    // The absolute path of relative below the directory.
    std::filesystem::path operator/(const std::string& relative) const;

  private:
    std::filesystem::path root;
};

// Writes text to a file, making its directories.
void writeFile(const std::filesystem::path& file, const std::string& text);
std::string readFile(const std::filesystem::path& file);

// Occurrences of part in text, none overlapping.
std::size_t countInText(const std::string& text, const std::string& part);

// The repository's source and build roots, as meson test gives them.
std::filesystem::path sourceRoot();
std::filesystem::path buildRoot();

} // namespace hwtopod::test
