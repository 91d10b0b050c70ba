#pragma once

// The simulated GPIO controller that both generations of the library's
// stand-in serve: its lines, their levels and the edges written to the edge
// FIFO. The environment variable HWTOPOD_SIM_GPIO names a directory:
//   lines   one line per GPIO line, "<name> <level>", in offset order; all
//           lines sit on one controller, "gpiochip0" with the label
//           "fpga-gpio". Without the file there is no controller.
//   edges   a FIFO; each written line "<name> rising|falling" becomes one
//           edge event of that line and changes its level.
// The format is described in docs/simulation.md.

#include <time.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace simgpio
{

inline constexpr const char* chipName = "gpiochip0";
inline constexpr const char* chipLabel = "fpga-gpio";

struct Edge
{
    timespec time{};
    bool rising = false;
    // Counts the edges of the whole controller, from 1.
    std::uint64_t sequence = 0;
};

struct LineState
{
    std::string name;
    int level = 0;
    // Edges read from the FIFO and not yet taken by event reads.
    std::deque<Edge> pending;
    // The consumer of a request of the newer generation holding the line.
    std::optional<std::string> heldBy;
};

// What all chip handles of the process share: the lines and their edges.
struct Machine
{
    std::mutex mutex;
    bool loaded = false;
    bool present = false;
    std::vector<LineState> lines;
    int fifo = -1;
    std::string partial;
    std::uint64_t edges = 0;
};

// The process's one controller, its line file read on first use. The
// functions below but waitForEdges and isThisChip are called with its mutex
// held.
Machine& machine();
void load(Machine& m);

// Opens the edge FIFO for reading and writing, so that it never reports an
// end of file when a writer goes; -1 when there is none.
int edgeFifo(Machine& m);

// Moves whatever the FIFO holds onto the lines' pending edges.
void drainFifo(Machine& m);

// Waits until hasEdges, asked with the mutex held after the FIFO is
// drained, says yes (1), the time-out in milliseconds runs out (0; a
// negative one never does) or the wait fails (-1, errno set). Called
// without the mutex.
int waitForEdges(Machine& m, int timeoutMs,
                 const std::function<bool()>& hasEdges);

// True when the text names the controller: its name, device node, label or
// number.
bool isThisChip(const char* text);

} // namespace simgpio
