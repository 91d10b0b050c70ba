#include "sleep.hpp"

#include <mutex>
#include <thread>

namespace hwtopod
{

namespace
{
std::mutex sleepMutex;
SleepFunction& currentSleep()
{
    static SleepFunction function;
    return function;
}
} // namespace

void sleepFor(std::chrono::milliseconds duration)
{
    SleepFunction function;
    {
        std::lock_guard lock(sleepMutex);
        function = currentSleep();
    }
    if (function)
    {
        function(duration);
        return;
    }
    // sleep_for resumes after a signal for the time that was left.
    std::this_thread::sleep_for(duration);
}

void setSleepFunction(SleepFunction function)
{
    std::lock_guard lock(sleepMutex);
    currentSleep() = std::move(function);
}

} // namespace hwtopod
