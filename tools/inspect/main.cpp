// hwtopod-inspect: shows what the hardware topology daemon has found.
//
//   hwtopod-inspect [--json] [--pid PID] [--service NAME]
//
// Reads the daemon's objects from the system bus, its result files in
// /var/configuration (below HWTOPOD_ROOT when that is set), its I2C links in
// /dev and its event records in the journal, and prints them as text or, with
// --json, as one JSON document. The status is 1, with the reasons on standard
// error after the report, when the daemon is not on the bus or a result file
// it wrote cannot be read: the report is then not the daemon's picture.

#include "common/jsonNumber.hpp"
#include "inspect.hpp"

#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>

namespace
{
int usage()
{
    std::cerr << "usage: hwtopod-inspect [--json] [--pid PID] "
                 "[--service NAME]\n";
    return 2;
}
} // namespace

int main(int argc, char** argv)
{
    hwtopod::inspect::Options options;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
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
