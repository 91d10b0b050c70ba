// Development and test stand-in of the liquid cooling service: answers
// CreateSensors on the system bus and writes one line per call on standard
// output.

#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <iostream>

int main()
{
    auto connection =
        sdbus::createSystemBusConnection("com.halvex.liquid_cooling");
    auto object =
        sdbus::createObject(*connection, "/com/halvex/liquid_cooling");
    object->registerMethod("CreateSensors")
        .onInterface("com.halvex.liquid_cooling")
        .implementedAs([](std::uint32_t type) {
            std::cout << "CreateSensors " << type << std::endl;
        });
    object->finishRegistration();
    std::cout << "liquid cooling stand-in ready" << std::endl;
    connection->enterEventLoop();
    return 0;
}
