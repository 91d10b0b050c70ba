// The GPIO line seams over libgpiod 1.6: the library walks the controllers
// itself, so the root of the daemon's paths is not needed here.

#include "gpioLines.hpp"
#include "lineReader.hpp"

#include <gpiod.h>
#include <poll.h>

#include <gpiod.hpp>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace hwtopod
{

namespace
{
// Open mode of gpiod::chip: by the controller's name.
constexpr int openByName = 3;

class GpiodFaultLines : public FaultLineGpio
{
  public:
    std::optional<GpioLineLocation> findLine(const std::string& name) override
    {
        gpiod::line line = gpiod::find_line(name);
        if (!line)
        {
            return std::nullopt;
        }
        return GpioLineLocation{line.get_chip().name(), line.offset()};
    }

    void openChip(const std::string& chipName) override
    {
        lines = gpiod::line_bulk();
        changed = gpiod::line_bulk();
        chip = gpiod::chip(chipName, openByName);
    }

    bool selectLines(const std::vector<unsigned>& offsets) override
    {
        changed = gpiod::line_bulk();
        lines = chip.get_lines(offsets);
        return static_cast<bool>(lines);
    }

    void requestBothEdges(const std::string& consumer) override
    {
        gpiod::line_request request;
        request.consumer = consumer;
        request.request_type = gpiod::line_request::EVENT_BOTH_EDGES;
        lines.request(request, {});
    }

    void releaseLines() override
    {
        if (lines)
        {
            lines.release();
        }
        changed = gpiod::line_bulk();
    }

    std::vector<unsigned> waitForEvents(int wakeFd) override
    {
        std::vector<unsigned> offsets;
        while (true)
        {
            // Events already queued are taken without blocking: a line's
            // descriptor need not stay readable for them.
            changed = lines.event_wait(std::chrono::nanoseconds(0));
            for (const auto& line : changed)
            {
                offsets.push_back(line.offset());
            }
            if (!offsets.empty())
            {
                return offsets;
            }
            std::vector<pollfd> watched;
            for (const auto& line : lines)
            {
                watched.push_back(pollfd{line.event_get_fd(), POLLIN, 0});
            }
            watched.push_back(pollfd{wakeFd, POLLIN, 0});
            if (::poll(watched.data(), watched.size(), -1) < 0 &&
                errno != EINTR)
            {
                throw std::system_error(errno, std::generic_category(),
                                        "wait for GPIO events");
            }
            if (watched.back().revents != 0)
            {
                return offsets;
            }
        }
    }

    std::vector<GpioEdgeEvent> readEvents(unsigned offset) override
    {
        for (const auto& line : changed)
        {
            if (line.offset() != offset)
            {
                continue;
            }
            std::vector<GpioEdgeEvent> events;
            for (const auto& event : line.event_read_multiple())
            {
                events.push_back(
                    GpioEdgeEvent{event.event_type, event.source.name(),
                                  event.source.offset()});
            }
            return events;
        }
        throw std::logic_error(
            "no events waited for on line " + std::to_string(offset));
    }

  private:
    gpiod::chip chip;
    gpiod::line_bulk lines;
    gpiod::line_bulk changed;
};

class GpiodLineReader : public LineReader
{
  public:
    std::optional<int> readOnce(const std::string& lineName,
                                const std::string& consumer) override
    {
        gpiod_line* line = gpiod_line_find(lineName.c_str());
        if (line == nullptr)
        {
            return std::nullopt;
        }
        if (gpiod_line_is_requested(line))
        {
            gpiod_line_release(line);
        }
        int value = -1;
        if (gpiod_line_request_input(line, consumer.c_str()) == 0)
        {
            value = gpiod_line_get_value(line);
        }
        gpiod_line_release(line);
        gpiod_line_close_chip(line);
        return value;
    }
};

} // namespace

std::unique_ptr<FaultLineGpio> libgpiodLines(const Root& /*root*/)
{
    return std::make_unique<GpiodFaultLines>();
}

std::shared_ptr<LineReader> libgpiodLineReader(const Root& /*root*/)
{
    return std::make_shared<GpiodLineReader>();
}

} // namespace hwtopod
