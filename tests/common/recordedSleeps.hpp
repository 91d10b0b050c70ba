#pragma once

#include "common/sleep.hpp"

#include <chrono>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace hwtopod::test
{

// Records the waits, in whole seconds, instead of sleeping, and calls
// `after` with the number of waits so far (which may throw to end a wait
// that would never end).
class RecordedSleeps
{
  public:
    explicit RecordedSleeps(std::function<void(std::size_t)> after = {}) :
        after(std::move(after))
    {}

    // The sleep seam that records here, for as long as this object lives.
    SleepFunction function()
    {
        return [this](std::chrono::milliseconds duration) {
            taken.push_back(static_cast<unsigned>(
                std::chrono::duration_cast<std::chrono::seconds>(duration)
                    .count()));
            if (after)
            {
                after(taken.size());
            }
        };
    }

    std::vector<unsigned> taken;
    std::function<void(std::size_t)> after;
};

} // namespace hwtopod::test
