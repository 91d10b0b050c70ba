#pragma once

// What the daemon tells the service manager that started it: that it is
// ready, how far start-up has come, and that its bus loop is alive. Each
// message goes to the socket NOTIFY_SOCKET names; where that is unset (a
// start by hand, the tests) nothing is sent and nothing else changes.

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace hwtopod::serviceManager
{

// Sent once the daemon can serve: its name is owned and the VPD match is
// installed, so that a VPD service ordered after it loses no signal.
void notifyReady();

// Milestones of start-up, in the order they are reached.
enum class Stage : std::uint8_t
{
    waitingForFpga,
    fpgaRead,
    discoveryRunning,
    discoveryEnded,
};

// STATUS= text of a milestone. The hardware thread and board discovery
// report from different threads; a stage older than one reported already
// is dropped, so a late report never hides a later milestone.
void notifyStage(Stage stage, const std::string& text);

// Half of the interval the manager's watchdog expects (WATCHDOG_USEC), or
// none when no watchdog is asked for.
std::optional<std::chrono::microseconds> watchdogFeedInterval();

// Sends WATCHDOG=1 at watchdogFeedInterval() from whichever thread runs the
// io_context, for as long as it runs it and this object lives.
class WatchdogFeeder
{
  public:
    explicit WatchdogFeeder(boost::asio::io_context& io);
    ~WatchdogFeeder();
    WatchdogFeeder(const WatchdogFeeder&) = delete;
    WatchdogFeeder& operator=(const WatchdogFeeder&) = delete;
    WatchdogFeeder(WatchdogFeeder&&) = delete;
    WatchdogFeeder& operator=(WatchdogFeeder&&) = delete;

  private:
    void arm();

    boost::asio::steady_timer timer;
    std::chrono::microseconds interval{0};
};

} // namespace hwtopod::serviceManager
