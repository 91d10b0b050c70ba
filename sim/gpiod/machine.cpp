#include "machine.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace simgpio
{

namespace
{
std::string directory()
{
    const char* dir = std::getenv("HWTOPOD_SIM_GPIO");
    return dir == nullptr ? std::string() : std::string(dir);
}

void applyEdge(Machine& m, const std::string& text)
{
    std::istringstream fields(text);
    std::string name;
    std::string edge;
    if (!(fields >> name >> edge))
    {
        return;
    }
    for (auto& line : m.lines)
    {
        if (line.name != name)
        {
            continue;
        }
        Edge event;
        ::clock_gettime(CLOCK_MONOTONIC, &event.time);
        event.rising = edge == "rising";
        event.sequence = ++m.edges;
        line.level = event.rising ? 1 : 0;
        line.pending.push_back(event);
        return;
    }
}
} // namespace

Machine& machine()
{
    static Machine state;
    return state;
}

void load(Machine& m)
{
    if (m.loaded)
    {
        return;
    }
    m.loaded = true;
    const auto dir = directory();
    if (dir.empty())
    {
        return;
    }
    std::ifstream file(dir + "/lines");
    if (!file)
    {
        return;
    }
    m.present = true;
    std::string text;
    while (std::getline(file, text))
    {
        std::istringstream fields(text);
        LineState line;
        if (!(fields >> line.name) || line.name.front() == '#')
        {
            continue;
        }
        fields >> line.level;
        m.lines.push_back(std::move(line));
    }
}

int edgeFifo(Machine& m)
{
    if (m.fifo < 0)
    {
        const auto path = directory() + "/edges";
        m.fifo = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }
    return m.fifo;
}

void drainFifo(Machine& m)
{
    const int fd = edgeFifo(m);
    if (fd < 0)
    {
        return;
    }
    char buffer[4096];
    while (true)
    {
        const auto got = ::read(fd, buffer, sizeof(buffer));
        if (got <= 0)
        {
            break;
        }
        m.partial.append(buffer, static_cast<std::size_t>(got));
    }
    std::size_t end = 0;
    while ((end = m.partial.find('\n')) != std::string::npos)
    {
        applyEdge(m, m.partial.substr(0, end));
        m.partial.erase(0, end + 1);
    }
}

int waitForEdges(Machine& m, int timeoutMs,
                 const std::function<bool()>& hasEdges)
{
    while (true)
    {
        int fd = -1;
        {
            std::lock_guard lock(m.mutex);
            drainFifo(m);
            if (hasEdges())
            {
                return 1;
            }
            fd = edgeFifo(m);
        }
        if (fd < 0)
        {
            errno = ENOENT;
            return -1;
        }
        pollfd entry{fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, timeoutMs);
        if (ready == 0)
        {
            return 0;
        }
        if (ready < 0 && errno != EINTR)
        {
            return -1;
        }
    }
}

bool isThisChip(const char* text)
{
    if (text == nullptr)
    {
        return false;
    }
    // A device node under the root of a test's or the simulator's paths
    // counts as the controller's own.
    const char* base = std::strrchr(text, '/');
    return std::strcmp(text, chipName) == 0 ||
           (base != nullptr && std::strcmp(base + 1, chipName) == 0) ||
           std::strcmp(text, chipLabel) == 0 || std::strcmp(text, "0") == 0;
}

} // namespace simgpio
