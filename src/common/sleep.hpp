#pragma once

#include <chrono>
#include <functional>

namespace hwtopod
{

// All waits of seconds go through a function of this kind handed to whoever
// waits, so that tests can replace the clock and run minutes of retries in
// milliseconds. The daemon keeps the real durations.
using SleepFunction = std::function<void(std::chrono::milliseconds)>;

// Sleeps for the whole duration.
void realSleep(std::chrono::milliseconds duration);

} // namespace hwtopod
