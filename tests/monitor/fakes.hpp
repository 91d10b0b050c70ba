#pragma once

// A GPIO controller for the monitor's tests: named lines that can appear
// late, and a script of edges that the waits hand out one batch at a time.
// When the script is used up, the next wait throws, which ends the monitor.

#include "monitor/gpioLines.hpp"

#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace hwtopod::test
{

class ScriptedLines : public FaultLineGpio
{
  public:
    // Edges of one wait: for each line with events, its offset and events.
    using Batch = std::vector<std::pair<unsigned, std::vector<GpioEdgeEvent>>>;

    // Lines that exist once `available` is true.
    std::map<std::string, GpioLineLocation> lines;
    bool available = true;
    // Names whose second look-up (while offsets are gathered) throws.
    std::vector<std::string> failingLookups;
    // Thrown by openChip when not empty.
    std::string openError;
    std::vector<Batch> script;

    // What the monitor did.
    std::vector<std::string> openedChips;
    std::vector<std::vector<unsigned>> selections;
    std::vector<std::string> consumers;
    std::size_t waits = 0;

    std::optional<GpioLineLocation> findLine(const std::string& name) override
    {
        std::lock_guard lock(mutex);
        if (!available)
        {
            return std::nullopt;
        }
        auto found = lines.find(name);
        if (found == lines.end())
        {
            return std::nullopt;
        }
        if (!openedChips.empty() && fails(name))
        {
            throw std::runtime_error("lookup of " + name + " failed");
        }
        return found->second;
    }

    void openChip(const std::string& chipName) override
    {
        std::lock_guard lock(mutex);
        if (!openError.empty())
        {
            throw std::runtime_error(openError);
        }
        openedChips.push_back(chipName);
    }

    bool selectLines(const std::vector<unsigned>& offsets) override
    {
        std::lock_guard lock(mutex);
        selections.push_back(offsets);
        return !offsets.empty();
    }

    void requestBothEdges(const std::string& consumer) override
    {
        std::lock_guard lock(mutex);
        consumers.push_back(consumer);
    }

    std::vector<unsigned> waitForEvents(std::chrono::nanoseconds) override
    {
        std::lock_guard lock(mutex);
        if (waits >= script.size())
        {
            throw std::runtime_error("end of script");
        }
        current = script[waits++];
        std::vector<unsigned> offsets;
        for (const auto& [offset, events] : current)
        {
            offsets.push_back(offset);
        }
        return offsets;
    }

    std::vector<GpioEdgeEvent> readEvents(unsigned offset) override
    {
        std::lock_guard lock(mutex);
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
    bool fails(const std::string& name) const
    {
        for (const auto& failing : failingLookups)
        {
            if (failing == name)
            {
                return true;
            }
        }
        return false;
    }

    std::mutex mutex;
    Batch current;
};

} // namespace hwtopod::test
