#include "paths.hpp"

#include <cstdlib>

namespace hwtopod
{

std::string rootPath(std::string_view absolutePath)
{
    const char* root = std::getenv("HWTOPOD_ROOT");
    if (root == nullptr || *root == '\0')
    {
        return std::string(absolutePath);
    }
    std::string result(root);
    while (!result.empty() && result.back() == '/')
    {
        result.pop_back();
    }
    if (!absolutePath.empty() && absolutePath.front() != '/')
    {
        result += '/';
    }
    result += absolutePath;
    return result;
}

} // namespace hwtopod
