// hwtopod-inspect: shows what the hardware topology daemon has found.
//
//   hwtopod-inspect [--json] [--pid PID] [--service NAME] | --help
//
// What it reads and what its statuses mean is the help text below, which is
// also its manual.

#include "common/jsonNumber.hpp"
#include "inspect.hpp"

#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>

namespace
{
constexpr const char* usageLine =
    "usage: hwtopod-inspect [--json] [--pid PID] [--service NAME]\n";

// Kept to what a field engineer needs on a controller without manual pages.
constexpr const char* helpText =
    "\n"
    "Shows what the hardware topology daemon has found: its D-Bus objects\n"
    "(platform facts, risers with their PCIe slots, backplanes, device\n"
    "presence), its result files in /var/configuration, its I2C links in\n"
    "/dev and its event records in the journal, worded by the installed\n"
    "message registry: those of every process of the daemon's unit this\n"
    "boot, restarts included, each with its process where there are more.\n"
    "HWTOPOD_ROOT, when set, is the directory taken as /.\n"
    "\n"
    "  --json          one JSON document instead of the text report; parts\n"
    "                  that could not be read are null, with the reason\n"
    "                  under \"errors\", and what makes the report unfit to\n"
    "                  rely on is listed under \"failures\"\n"
    "  --pid PID       the daemon's process, whose unit's records are\n"
    "                  shown (default: the owner of the bus name)\n"
    "  --service NAME  the daemon's bus name (default com.halvex.hwtopod)\n"
    "  --help          this text\n"
    "\n"
    "Exit status:\n"
    "  0  the report is the daemon's picture; the problems it lists (events\n"
    "     that need an operator) do not change the status\n"
    "  1  the daemon is not on the system bus, a result file it wrote\n"
    "     cannot be read, or the report could not be made; the reasons go\n"
    "     to standard error after the report\n"
    "  2  a usage error: unknown option or bad value, on standard error\n";

int usage()
{
    std::cerr << usageLine;
    return 2;
}
} // namespace

int main(int argc, char** argv)
{
    hwtopod::inspect::Options options;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h")
        {
            std::cout << usageLine << helpText;
            return 0;
        }
        if (arg == "--json")
        {
            options.json = true;
        }
        else if (arg == "--pid" && i + 1 < argc)
        {
            const auto pid = hwtopod::decimalInteger<pid_t>(argv[++i]);
            if (!pid || *pid <= 0)
            {
                return usage();
            }
            options.pid = *pid;
        }
        else if (arg == "--service" && i + 1 < argc)
        {
            options.service = argv[++i];
        }
        else
        {
            return usage();
        }
    }
    try
    {
        const auto document = hwtopod::inspect::collect(options);
        if (options.json)
        {
            std::cout << document.dump(2) << "\n";
        }
        else
        {
            std::cout << hwtopod::inspect::render(document);
        }
        std::cout.flush();
        for (const auto& failure : document["failures"])
        {
            std::cerr << "hwtopod-inspect: " << failure.get<std::string>()
                      << "\n";
        }
        if (!document["failures"].empty())
        {
            return 1;
        }
    }
    catch (const std::exception& e)
    {
        std::cerr << "hwtopod-inspect: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
