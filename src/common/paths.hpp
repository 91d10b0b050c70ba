#pragma once

#include <string>
#include <string_view>

namespace hwtopod
{

// Every absolute path the daemon touches goes through here. With the
// environment variable HWTOPOD_ROOT set, the path is placed below that
// directory, so tests and the simulator run the real binary on a sandbox.
std::string rootPath(std::string_view absolutePath);

// Where the machine's rule files, PSU configuration and event registry are
// read from. A fixed place, not the build's prefix: meson install puts them
// here, and an image recipe knows where to find them.
inline constexpr std::string_view dataDirectory =
    "/usr/share/vantarack-bmc-apps/hwtopod/";

// The absolute path of a file in dataDirectory, before rootPath.
inline std::string dataFile(std::string_view name)
{
    std::string path(dataDirectory);
    path += name;
    return path;
}

} // namespace hwtopod
