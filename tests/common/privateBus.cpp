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
    std::string config =
        readFile(sourceRoot() / "tests/data/system-bus.conf.in");
    const std::string marker = "@SOCKET@";
    config.replace(config.find(marker), marker.size(), socket.string());
    writeFile(dir / "bus.conf", config);
    const std::string configArg =
        "--config-file=" + (dir / "bus.conf").string();

    pid = fork();
    if (pid == 0)
    {
        execlp("dbus-daemon", "dbus-daemon", configArg.c_str(), "--nofork",
               "--nopidfile", static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 500 && !std::filesystem::exists(socket); ++i)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!std::filesystem::exists(socket))
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
