#include "sleep.hpp"

#include <thread>

namespace hwtopod
{

void realSleep(std::chrono::milliseconds duration)
{
    // sleep_for resumes after a signal for the time that was left.
    std::this_thread::sleep_for(duration);
}

} // namespace hwtopod
