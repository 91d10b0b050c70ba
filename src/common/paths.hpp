#pragma once

#include <string>
#include <string_view>

namespace hwtopod
{

// Where the daemon's absolute paths are placed: the machine's own root, or a
// directory that stands for it, the sandbox of a test or of the simulator.
// Every absolute path the daemon touches goes through path().
class Root
{
  public:
    // The machine's own root: paths stay as they are.
    Root() = default;
    explicit Root(std::string directory);

    // The root that the environment variable HWTOPOD_ROOT names; the
    // machine's own when it is unset or empty.
    static Root fromEnvironment();

    std::string path(std::string_view absolutePath) const;

  private:
    // Without a trailing slash; empty for the machine's own root.
    std::string directory;
};

// Where the machine's rule files, PSU configuration and event registry are
// read from. A fixed place, not the build's prefix: meson install puts them
// here, and an image recipe knows where to find them.
inline constexpr std::string_view dataDirectory =
    "/usr/share/vantarack-bmc-apps/hwtopod/";

// The absolute path of a file in dataDirectory, before Root::path.
inline std::string dataFile(std::string_view name)
{
    std::string path(dataDirectory);
    path += name;
    return path;
}

} // namespace hwtopod
