// Fault injection for the simulator: holds a bus name without allowing
// another connection to replace it, as a stray second instance of a service
// would, until it is ended.

#include <sdbus-c++/sdbus-c++.h>

#include <iostream>

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::cerr << "usage: hwtopod-sim-nameholder <bus name>\n";
        return 2;
    }
    auto connection = sdbus::createSystemBusConnection(argv[1]);
    std::cout << "holding " << argv[1] << " ready" << std::endl;
    connection->enterEventLoop();
    return 0;
}
