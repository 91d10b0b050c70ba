#pragma once

#include "sandbox.hpp"

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace hwtopod::test
{

// Given as a variable's value, removes the variable from the child's
// environment.
inline constexpr const char* unsetValue = "<unset>";

// A child process (the real daemon or a stand-in service) with its standard
// output and error captured in files. It inherits the environment of the
// test, with the given variables set on top.
class Process
{
  public:
    Process(const std::filesystem::path& program,
            const std::vector<std::string>& arguments,
            const std::map<std::string, std::string>& environment = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    Process(Process&&) = delete;
    Process& operator=(Process&&) = delete;

    pid_t pid() const
    {
        return child;
    }

    std::string standardError() const;
    std::string standardOutput() const;

    // Waits until standard error holds text; false at the time-out.
    bool waitForLog(
        const std::string& text,
        std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // Number of times text occurs in standard error.
    std::size_t countInLog(const std::string& text) const;

    bool running();
    // Waits for the process to end by itself; its exit status, or -1 at the
    // time-out.
    int waitForExit(std::chrono::milliseconds timeout);
    // SIGTERM, then SIGKILL if needed; returns the wait status.
    int stop();

  private:
    TempDir dir;
    pid_t child = -1;
    int status = 0;
    bool reaped = false;
};

// Path of a program built in this build tree, as meson places it.
std::filesystem::path builtProgram(const std::string& relativePath);

} // namespace hwtopod::test
