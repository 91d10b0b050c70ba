#include "serviceManager.hpp"

#include <systemd/sd-daemon.h>

#include <exception>
#include <mutex>

namespace hwtopod::serviceManager
{

namespace
{
std::mutex stageMutex;
std::optional<Stage> lastStage;
} // namespace

void notifyReady()
{
    sd_notify(0, "READY=1");
}

void notifyStage(Stage stage, const std::string& text)
{
    // Under the lock, so that two reports cannot pass each other between
    // the check and the send.
    std::lock_guard lock(stageMutex);
    if (lastStage && stage < *lastStage)
    {
        return;
    }
    lastStage = stage;
    sd_notify(0, ("STATUS=" + text).c_str());
}

std::optional<std::chrono::microseconds> watchdogFeedInterval()
{
    std::uint64_t usec = 0;
    // Checks WATCHDOG_PID against this process as well; the variables stay
    // set, the daemon starts no process that could take them.
    if (sd_watchdog_enabled(0, &usec) <= 0 || usec < 2)
    {
        return std::nullopt;
    }
    // The manager's figure is 64 bits of microseconds; the half of it fits
    // the duration's signed 64-bit count on every target.
    return std::chrono::microseconds(
        static_cast<std::chrono::microseconds::rep>(usec / 2));
}

WatchdogFeeder::WatchdogFeeder(boost::asio::io_context& io) : timer(io)
{
    if (const auto half = watchdogFeedInterval())
    {
        interval = *half;
        sd_notify(0, "WATCHDOG=1");
        arm();
    }
}

WatchdogFeeder::~WatchdogFeeder()
{
    // A destructor must not throw; a cancel that fails leaves the timer's
    // last wait to end with the io_context.
    try
    {
        timer.cancel();
    }
    catch (const std::exception&)
    {}
}

void WatchdogFeeder::arm()
{
    timer.expires_after(interval);
    timer.async_wait([this](const boost::system::error_code& error) {
        if (!error)
        {
            sd_notify(0, "WATCHDOG=1");
            arm();
        }
    });
}

} // namespace hwtopod::serviceManager
