#include "paths.hpp"

#include <cstdlib>
#include <utility>

namespace hwtopod
{

Root::Root(std::string directory) : directory(std::move(directory))
{
    while (!this->directory.empty() && this->directory.back() == '/')
    {
        this->directory.pop_back();
    }
}

Root Root::fromEnvironment()
{
    const char* root = std::getenv("HWTOPOD_ROOT");
    return Root(root == nullptr ? std::string() : std::string(root));
}

std::string Root::path(std::string_view absolutePath) const
{
    if (directory.empty())
    {
        return std::string(absolutePath);
    }
    std::string result = directory;
    if (!absolutePath.empty() && absolutePath.front() != '/')
    {
        result += '/';
    }
    result += absolutePath;
    return result;
}

} // namespace hwtopod
