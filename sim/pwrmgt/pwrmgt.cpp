// Development and test stand-in of the power management service: takes
// power-on votes and records each one on standard output as
//   Vote <voter> <id> on|off
// Usage: hwtopod-sim-pwrmgt [--reply N]   (N is the answer, default 0)

#include "common/jsonNumber.hpp"
#include "dbus/service.hpp"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

int main(int argc, char** argv)
{
    std::int32_t reply = 0;
    for (int i = 1; i + 1 < argc; ++i)
    {
        if (std::string(argv[i]) == "--reply")
        {
            auto given = hwtopod::decimalInteger<std::int32_t>(argv[i + 1]);
            if (!given)
            {
                std::cerr << "pwrmgt: --reply takes a 32-bit integer\n";
                return 2;
            }
            reply = *given;
        }
    }
    const hwtopod::dbus::Service::Method vote{
        "Vote", "sub", "i", [reply](const hwtopod::dbus::Values& arguments) {
            std::cout << "Vote " << std::get<std::string>(arguments.at(0))
                      << " " << std::get<std::uint32_t>(arguments.at(1)) << " "
                      << (std::get<bool>(arguments.at(2)) ? "on" : "off")
                      << std::endl;
            return hwtopod::dbus::Values{reply};
        }};
    hwtopod::dbus::Service service("com.halvex.pwrmgt");
    service.addObject("/com/halvex/pwrmgt/permission",
                      {{"com.halvex.Pwrmgt.Policy", {{}, {vote}}}});
    std::cout << "pwrmgt ready" << std::endl;
    service.serveUntil(std::chrono::steady_clock::time_point::max());
    return 0;
}
