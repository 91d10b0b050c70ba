#pragma once

// Stand-ins for the monitor's tests: a GPIO controller whose waits hand out
// a script of edges, one batch at a time (when the script is used up the
// next wait throws, which ends the monitor, or, when idle, blocks until
// the monitor is woken).

#include "monitor/gpioLines.hpp"
#include "recordedSleeps.hpp"

#include <poll.h>

#include <atomic>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace hwtopod::test
{

class ScriptedLines : public FaultLineGpio
{
  public:
    // Edges of one wait: for each line with events, its offset and events.
    using Batch = std::vector<std::pair<unsigned, std::vector<GpioEdgeEvent>>>;

    // The lines, found only while `available`.
    std::map<std::string, GpioLineLocation> lines;
    bool available = true;
    std::string openError; // thrown by openChip when set
    std::vector<Batch> script;
    bool idle = false; // past the script, waits see no edge and do not throw

    // What the monitor did.
    std::vector<std::vector<unsigned>> selections;
    std::vector<std::string> consumers;
    bool released = false;
    std::atomic<std::size_t> waits = 0;

    ScriptedLines() = default;
    ScriptedLines(const ScriptedLines&) = delete;
    ScriptedLines& operator=(const ScriptedLines&) = delete;
    // A script not played to its end means the monitor stopped early or
    // missed a wait, and requested lines must be given back: else the test
    // that wrote it fails.
    ~ScriptedLines() override
    {
        EXPECT_GE(waits, script.size()) << "part of the GPIO script unplayed";
        EXPECT_EQ(!consumers.empty(), released) << "lines not given back";
    }

    std::optional<GpioLineLocation> findLine(const std::string& name) override
    {
        auto found = lines.find(name);
        if (!available || found == lines.end())
        {
            return std::nullopt;
        }
        return found->second;
    }
    void openChip(const std::string&) override
    {
        if (!openError.empty())
        {
            throw std::runtime_error(openError);
        }
    }
    bool selectLines(const std::vector<unsigned>& offsets) override
    {
        selections.push_back(offsets);
        return !offsets.empty();
    }
    void requestBothEdges(const std::string& consumer) override
    {
        consumers.push_back(consumer);
    }
    std::vector<unsigned> waitForEvents(int wakeFd) override
    {
        if (waits >= script.size() && !idle)
        {
            throw std::runtime_error("end of script");
        }
        if (waits >= script.size())
        {
            // Idle: no edge comes, only the wake-up ends the wait.
            ++waits;
            pollfd wake{wakeFd, POLLIN, 0};
            ::poll(&wake, 1, -1);
            current.clear();
            return {};
        }
        current = script[waits++];
        std::vector<unsigned> offsets;
        for (const auto& entry : current)
        {
            offsets.push_back(entry.first);
        }
        return offsets;
    }
    void releaseLines() override
    {
        released = true;
    }
    std::vector<GpioEdgeEvent> readEvents(unsigned offset) override
    {
        for (const auto& [lineOffset, events] : current)
        {
            if (lineOffset == offset)
            {
                return events;
            }
        }
        throw std::logic_error("read of a line that had no events");
    }

  private:
    Batch current;
};

} // namespace hwtopod::test
