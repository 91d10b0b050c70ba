#include "common/logging.hpp"
#include "kelvane1u.hpp"
#include "threads.hpp"

#include <memory>
#include <thread>

using hwtopod::logInfo;

int main()
{
    logInfo() << "Halvex Intel BHS Platform: Mainstream 1U <Kelvane1u>";
    auto platform = std::make_shared<Platform::Kelvane1u>(
        Platform::Seams::machine(hwtopod::Root::fromEnvironment()));
    std::thread hardware(Platform::hardwareThread, platform);
    std::thread service(Platform::serviceThread, platform);
    hardware.join();
    service.join();
    return 0;
}
