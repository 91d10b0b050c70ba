#pragma once

// The GPIO calls of the fault line monitor, kept behind a small interface:
// the daemon goes to the kernel's GPIO character devices through libgpiod,
// tests put a scripted controller here.

#include "common/paths.hpp"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace hwtopod
{

// Where a named line lives: its controller and its number there.
struct GpioLineLocation
{
    std::string chipName;
    unsigned offset = 0;
};

inline constexpr int gpioRisingEdge = 1;
inline constexpr int gpioFallingEdge = 2;

// One edge of one line.
struct GpioEdgeEvent
{
    int type = 0; // gpioRisingEdge or gpioFallingEdge
    std::string lineName;
    unsigned lineOffset = 0;
};

// Lines of one controller, watched for edges. Used by one thread.
class FaultLineGpio
{
  public:
    virtual ~FaultLineGpio() = default;

    // Looks for a line by name in all controllers; empty when none has it.
    virtual std::optional<GpioLineLocation> findLine(
        const std::string& name) = 0;

    // Opens a controller by its name; throws when that fails.
    virtual void openChip(const std::string& chipName) = 0;

    // Makes the set of lines at these offsets of the opened controller the
    // set to watch. False when the set is empty.
    virtual bool selectLines(const std::vector<unsigned>& offsets) = 0;

    // Requests events on both edges for every line of the set.
    virtual void requestBothEdges(const std::string& consumer) = 0;

    // Blocks, with no time limit, until lines of the set have events or
    // wakeFd is readable; returns the offsets of the lines with events, none
    // when only wakeFd woke it.
    virtual std::vector<unsigned> waitForEvents(int wakeFd) = 0;

    // Gives the lines of the set back: the monitor calls it when it stops
    // watching, so that a monitor that gave up holds no line.
    virtual void releaseLines() = 0;

    // All pending events of the line at offset, oldest first. Only for a
    // line that the last wait returned.
    virtual std::vector<GpioEdgeEvent> readEvents(unsigned offset) = 0;
};

// The kernel's GPIO controllers, through libgpiod; their device nodes are
// looked for under root.
std::unique_ptr<FaultLineGpio> libgpiodLines(const Root& root);

} // namespace hwtopod
