// Fault injection for the simulator: holds a bus name without allowing
// another connection to replace it, as a stray second instance of a service
// would, until it is ended.

#include "dbus/service.hpp"

#include <chrono>
#include <iostream>

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::cerr << "usage: hwtopod-sim-nameholder <bus name>\n";
        return 2;
    }
    hwtopod::dbus::Service service(argv[1]);
    std::cout << "holding " << argv[1] << " ready" << std::endl;
    service.serveUntil(std::chrono::steady_clock::time_point::max());
    return 0;
}
