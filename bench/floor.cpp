// hwtopod-bench-floor VPD_CALLS VOTES REPEATS
//
// The least time that a given amount of D-Bus traffic takes on the system
// bus: VPD_CALLS method calls to the VPD service, then VOTES calls to the
// power management service, one after the other, each on a connection opened
// for it and closed after, as the daemon makes its client calls and votes.
// Each call is a Peer.Ping, which the peer's bus library answers without any
// work of its own, so that only the connection and the round trip through
// the bus daemon are timed. Repeated REPEATS times; prints
// "floor <median ms>".

#include "dbus/client.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace
{

bool count(std::string_view text, unsigned& value)
{
    const auto* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && stop == end && !text.empty();
}

} // namespace

int main(int argc, char** argv)
{
    unsigned calls = 0;
    unsigned votes = 0;
    unsigned repeats = 0;
    if (argc != 4 || !count(argv[1], calls) || !count(argv[2], votes) ||
        !count(argv[3], repeats) || repeats == 0)
    {
        std::fprintf(stderr,
                     "usage: hwtopod-bench-floor VPD_CALLS VOTES REPEATS\n");
        return 2;
    }
    std::vector<double> totals;
    for (unsigned repeat = 0; repeat < repeats; ++repeat)
    {
        const auto start = std::chrono::steady_clock::now();
        for (unsigned i = 0; i < calls + votes; ++i)
        {
            hwtopod::dbus::callMethod(
                i < calls ? "com.halvex.vpdd" : "com.halvex.pwrmgt", "/",
                "org.freedesktop.DBus.Peer", "Ping", {});
        }
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - start;
        totals.push_back(took.count());
    }
    const auto middle =
        totals.begin() + static_cast<std::ptrdiff_t>(totals.size() / 2);
    std::nth_element(totals.begin(), middle, totals.end());
    std::printf("floor %.3f\n", totals[totals.size() / 2]);
    return 0;
}
