// Development and test stand-in of the liquid cooling service: answers
// CreateSensors on the system bus and writes one line per call on standard
// output.

#include "dbus/service.hpp"

#include <chrono>
#include <cstdint>
#include <iostream>

int main()
{
    const hwtopod::dbus::Service::Method createSensors{
        "CreateSensors", "u", "", [](const hwtopod::dbus::Values& arguments) {
            std::cout << "CreateSensors "
                      << std::get<std::uint32_t>(arguments.at(0)) << std::endl;
            return hwtopod::dbus::Values{};
        }};
    hwtopod::dbus::Service service("com.halvex.liquid_cooling");
    service.addObject("/com/halvex/liquid_cooling",
                      {{"com.halvex.liquid_cooling", {{}, {createSensors}}}});
    std::cout << "liquid cooling stand-in ready" << std::endl;
    service.serveUntil(std::chrono::steady_clock::time_point::max());
    return 0;
}
