#include "process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

namespace hwtopod::test
{

Process::Process(const std::filesystem::path& program,
                 const std::vector<std::string>& arguments,
                 const std::map<std::string, std::string>& environment)
{
    const auto out = (dir / "stdout").string();
    const auto err = (dir / "stderr").string();
    child = fork();
    if (child == 0)
    {
        for (const auto& [name, value] : environment)
        {
            if (value == unsetValue)
            {
                unsetenv(name.c_str());
            }
            else
            {
                setenv(name.c_str(), value.c_str(), 1);
            }
        }
        int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int errFd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(outFd, STDOUT_FILENO);
        dup2(errFd, STDERR_FILENO);
        std::vector<char*> argv;
        std::string name = program.string();
        argv.push_back(name.data());
        std::vector<std::string> copies = arguments;
        for (auto& argument : copies)
        {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        execv(name.c_str(), argv.data());
        _exit(127);
    }
}

Process::~Process()
{
    stop();
}

std::string Process::standardError() const
{
    return readFile(dir / "stderr");
}

std::string Process::standardOutput() const
{
    return readFile(dir / "stdout");
}

bool Process::waitForLog(const std::string& text,
                         std::chrono::milliseconds timeout) const
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline)
    {
        if (standardError().find(text) != std::string::npos)
        {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return standardError().find(text) != std::string::npos;
}

std::size_t Process::countInLog(const std::string& text) const
{
    return countInText(standardError(), text);
}

bool Process::running()
{
    if (reaped || child <= 0)
    {
        return false;
    }
    if (waitpid(child, &status, WNOHANG) == child)
    {
        reaped = true;
        return false;
    }
    return true;
}

int Process::waitForExit(std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (running())
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Process::stop()
{
    if (!running())
    {
        return status;
    }
    kill(child, SIGTERM);
    if (waitForExit(std::chrono::seconds(3)) == -1)
    {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        reaped = true;
    }
    return status;
}

std::filesystem::path builtProgram(const std::string& relativePath)
{
    return buildRoot() / relativePath;
}

} // namespace hwtopod::test
