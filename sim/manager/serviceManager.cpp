// Stand-in of the service manager for one unit of Type=notify, for tests:
// starts a program as systemd starts such a service and prints what the
// program tells it.
//
//   hwtopod-sim-manager [--watchdog-usec N] [--journal-stream]
//       [--after-ready PID [--pause-on-ready]] -- program [arguments]
//
// The program gets NOTIFY_SOCKET, naming a datagram socket of the manager's,
// and with --watchdog-usec also WATCHDOG_USEC and WATCHDOG_PID. With
// --journal-stream JOURNAL_STREAM names the standard error it inherits, as
// systemd names the journal's stream it connects there. Printed on standard
// output, one line each:
//   started <pid>
//   notify <line>      each line of each message, as sent
//   released <pid>     --after-ready: SIGUSR1 sent to PID on READY=1, as a
//                      unit ordered after this one would be started then.
//                      With --pause-on-ready the program is stopped first
//                      (SIGSTOP) and the caller continues it: whatever the
//                      program had not done before READY=1 it does only
//                      after the peer has run. The watchdog then waits for
//                      the next WATCHDOG=1.
//   watchdog expired   no WATCHDOG=1 for the interval: the program gets
//                      SIGABRT, as from systemd
//   exited <status>    the program has ended; so does the manager, with the
//                      program's exit status
// The program ends with the manager.

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

namespace
{

using Clock = std::chrono::steady_clock;

struct Options
{
    std::uint64_t watchdogUsec = 0;
    bool journalStream = false;
    bool pauseOnReady = false;
    pid_t afterReady = 0;
    char** program = nullptr;
};

template <typename Number>
std::optional<Number> decimal(std::string_view text)
{
    Number value{};
    const auto* end = text.data() + text.size();
    const auto [next, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || next != end || value <= 0)
    {
        return std::nullopt;
    }
    return value;
}

std::optional<Options> parse(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i)
    {
        const std::string_view argument(argv[i]);
        if (argument == "--" && i + 1 < argc)
        {
            options.program = argv + i + 1;
            return options;
        }
        if (argument == "--journal-stream")
        {
            options.journalStream = true;
            continue;
        }
        if (argument == "--pause-on-ready")
        {
            options.pauseOnReady = true;
            continue;
        }
        if (i + 1 >= argc)
        {
            return std::nullopt;
        }
        const std::string_view value(argv[++i]);
        if (argument == "--watchdog-usec" &&
            decimal<std::uint64_t>(value).has_value())
        {
            options.watchdogUsec = *decimal<std::uint64_t>(value);
        }
        else if (argument == "--after-ready" && decimal<pid_t>(value))
        {
            options.afterReady = *decimal<pid_t>(value);
        }
        else
        {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

int bindSocket(const std::filesystem::path& path)
{
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (fd < 0 || path.string().size() >= sizeof(address.sun_path))
    {
        return -1;
    }
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
    {
        return -1;
    }
    return fd;
}

// In the child: the environment of the service, then the program.
[[noreturn]] void startService(const Options& options,
                               const std::filesystem::path& socket)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::setenv("NOTIFY_SOCKET", socket.c_str(), 1);
    if (options.watchdogUsec > 0)
    {
        ::setenv("WATCHDOG_USEC", std::to_string(options.watchdogUsec).c_str(),
                 1);
        ::setenv("WATCHDOG_PID", std::to_string(::getpid()).c_str(), 1);
    }
    struct stat error
    {};
    if (options.journalStream && ::fstat(STDERR_FILENO, &error) == 0)
    {
        const auto stream =
            std::to_string(error.st_dev) + ":" + std::to_string(error.st_ino);
        ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
    }
    ::execvp(options.program[0], options.program);
    std::_Exit(127);
}

// One message: each line printed, and what the manager does on it. True
// when it fed the watchdog; a pause stops the watch until then.
bool receive(const std::string& message, const Options& options, pid_t child,
             bool& watching)
{
    bool fed = false;
    std::istringstream lines(message);
    std::string line;
    while (std::getline(lines, line))
    {
        std::cout << "notify " << line << std::endl;
        if (line == "READY=1" && options.afterReady > 0)
        {
            if (options.pauseOnReady)
            {
                ::kill(child, SIGSTOP);
                watching = false;
            }
            ::kill(options.afterReady, SIGUSR1);
            std::cout << "released " << options.afterReady << std::endl;
        }
        fed = fed || line == "WATCHDOG=1";
    }
    return fed;
}

} // namespace

int main(int argc, char** argv)
{
    const auto options = parse(argc, argv);
    if (!options)
    {
        std::cerr << "usage: hwtopod-sim-manager [--watchdog-usec N] "
                     "[--journal-stream]\n    [--after-ready PID "
                     "[--pause-on-ready]] -- program [arguments]\n";
        return 2;
    }
    std::string directory =
        (std::filesystem::temp_directory_path() / "hwtopod-manager-XXXXXX")
            .string();
    if (::mkdtemp(directory.data()) == nullptr)
    {
        return 1;
    }
    const auto socketPath = std::filesystem::path(directory) / "notify";
    const int fd = bindSocket(socketPath);
    if (fd < 0)
    {
        std::cerr << "hwtopod-sim-manager: cannot bind " << socketPath << "\n";
        return 1;
    }
    const pid_t child = ::fork();
    if (child == 0)
    {
        startService(*options, socketPath);
    }
    std::cout << "started " << child << std::endl;

    const auto interval = std::chrono::microseconds(
        static_cast<std::chrono::microseconds::rep>(options->watchdogUsec));
    auto deadline = Clock::now() + interval;
    bool watching = options->watchdogUsec > 0;
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0)
    {
        pollfd wait{fd, POLLIN, 0};
        if (::poll(&wait, 1, 100) == 1)
        {
            char buffer[4096];
            const auto length = ::recv(fd, buffer, sizeof(buffer), 0);
            if (length > 0 &&
                receive(std::string(buffer, static_cast<std::size_t>(length)),
                        *options, child, watching))
            {
                deadline = Clock::now() + interval;
                watching = options->watchdogUsec > 0;
            }
        }
        if (watching && Clock::now() > deadline)
        {
            std::cout << "watchdog expired" << std::endl;
            ::kill(child, SIGABRT);
            watching = false;
        }
    }
    std::filesystem::remove_all(directory);
    const int code =
        WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::cout << "exited " << code << std::endl;
    return code;
}
