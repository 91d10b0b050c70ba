#include "privateBus.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace hwtopod::test
{

PrivateBus::PrivateBus()
{
    const auto socket = dir / "bus.socket";
    // Clients of other users reach the socket too.
    std::filesystem::permissions(dir.path(), std::filesystem::perms(0755));
    std::string config =
        readFile(sourceRoot() / "tests/data/system-bus.conf.in");
    const std::string marker = "@SOCKET@";
    config.replace(config.find(marker), marker.size(), socket.string());
    const std::string source = "@SOURCE@";
    for (auto at = config.find(source); at != std::string::npos;
         at = config.find(source))
    {
        config.replace(at, source.size(), sourceRoot().string());
    }
    writeFile(dir / "bus.conf", config);
    const std::string configArg =
        "--config-file=" + (dir / "bus.conf").string();

    // The daemon prints its address once it accepts connections; the
    // socket file alone appears a moment earlier.
    int ready[2];
    if (pipe(ready) != 0)
    {
        throw std::runtime_error("pipe failed");
    }
    pid = fork();
    if (pid == 0)
    {
        close(ready[0]);
        const std::string printArg =
            "--print-address=" + std::to_string(ready[1]);
        execlp("dbus-daemon", "dbus-daemon", configArg.c_str(), "--nofork",
               "--nopidfile", printArg.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(ready[1]);
    char buffer[512];
    ssize_t length = read(ready[0], buffer, sizeof(buffer));
    close(ready[0]);
    if (length <= 0 || !std::filesystem::exists(socket))
    {
        throw std::runtime_error("dbus-daemon did not start");
    }
    busAddress = "unix:path=" + socket.string();
    if (const char* previous = std::getenv("DBUS_SYSTEM_BUS_ADDRESS"))
    {
        hadPrevious = true;
        previousAddress = previous;
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress.c_str(), 1);
}

PrivateBus::~PrivateBus()
{
    if (hadPrevious)
    {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", previousAddress.c_str(), 1);
    }
    else
    {
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
    if (pid > 0)
    {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
}

} // namespace hwtopod::test
