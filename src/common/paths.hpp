#pragma once

#include <string>
#include <string_view>

namespace hwtopod
{

// Every absolute path the daemon touches goes through here. With the
// environment variable HWTOPOD_ROOT set, the path is placed below that
// directory, so tests and the simulator run the real binary on a sandbox.
std::string rootPath(std::string_view absolutePath);

} // namespace hwtopod
