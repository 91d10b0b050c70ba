#pragma once

#include <chrono>
#include <functional>

namespace hwtopod
{

// All waits of seconds go through this seam, so that tests can replace the
// clock and run minutes of retries in milliseconds. The daemon keeps the real
// durations.
using SleepFunction = std::function<void(std::chrono::milliseconds)>;

void sleepFor(std::chrono::milliseconds duration);

inline void sleepSeconds(unsigned seconds)
{
    sleepFor(std::chrono::seconds(seconds));
}

// Replaces the sleeping function; an empty function restores real sleeping.
// Meant to be called before the threads that sleep are started.
void setSleepFunction(SleepFunction function);

} // namespace hwtopod
