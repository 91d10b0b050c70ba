// Development and test stand-in of the power management service: takes
// power-on votes and records each one on standard output as
//   Vote <voter> <id> on|off
// Usage: hwtopod-sim-pwrmgt [--reply N]   (N is the answer, default 0)

#include "common/jsonNumber.hpp"

#include <sdbus-c++/sdbus-c++.h>

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
    auto connection = sdbus::createSystemBusConnection("com.halvex.pwrmgt");
    auto object =
        sdbus::createObject(*connection, "/com/halvex/pwrmgt/permission");
    object->registerMethod("Vote")
        .onInterface("com.halvex.Pwrmgt.Policy")
        .implementedAs(
            [reply](const std::string& voter, std::uint32_t id, bool on) {
        std::cout << "Vote " << voter << " " << id << " " << (on ? "on" : "off")
                  << std::endl;
        return reply;
        });
    object->finishRegistration();
    std::cout << "pwrmgt ready" << std::endl;
    connection->enterEventLoop();
    return 0;
}
