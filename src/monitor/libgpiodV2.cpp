// The GPIO line seams over libgpiod 2: lines are requested through the
// library's request API (line settings, edge detection, an event buffer).
// This generation has no walk over the controllers, so the daemon looks for
// their device nodes itself, in /dev under the root of its paths.

#include "gpioLines.hpp"
#include "lineReader.hpp"

#include <dirent.h>
#include <gpiod.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace hwtopod
{

namespace
{
template <auto release>
struct Release
{
    template <typename T>
    void operator()(T* object) const
    {
        release(object);
    }
};
using Chip = std::unique_ptr<gpiod_chip, Release<gpiod_chip_close>>;
using ChipInfo =
    std::unique_ptr<gpiod_chip_info, Release<gpiod_chip_info_free>>;
using LineInfo =
    std::unique_ptr<gpiod_line_info, Release<gpiod_line_info_free>>;
using Settings =
    std::unique_ptr<gpiod_line_settings, Release<gpiod_line_settings_free>>;
using LineConfig =
    std::unique_ptr<gpiod_line_config, Release<gpiod_line_config_free>>;
using RequestConfig =
    std::unique_ptr<gpiod_request_config, Release<gpiod_request_config_free>>;
using Request =
    std::unique_ptr<gpiod_line_request, Release<gpiod_line_request_release>>;
using EventBuffer = std::unique_ptr<gpiod_edge_event_buffer,
                                    Release<gpiod_edge_event_buffer_free>>;

// Events taken from the kernel in one read; more are read at once when the
// buffer comes back full.
constexpr std::size_t eventBufferSize = 64;

[[noreturn]] void throwErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

template <typename T>
T checked(T object, const std::string& what)
{
    if (!object)
    {
        throwErrno(what);
    }
    return object;
}

// The controllers' device nodes, in the order of their names, as the
// earlier generation of the library walks them.
std::vector<std::string> controllerPaths(const Root& root)
{
    std::vector<std::string> paths;
    const auto dev = root.path("/dev");
    std::unique_ptr<DIR, Release<::closedir>> dir(::opendir(dev.c_str()));
    if (!dir)
    {
        return paths;
    }
    while (const dirent* entry = ::readdir(dir.get()))
    {
        std::string path = dev + "/" + entry->d_name;
        if (std::string_view(entry->d_name).starts_with("gpiochip") &&
            gpiod_is_gpiochip_device(path.c_str()))
        {
            paths.push_back(std::move(path));
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::string chipName(gpiod_chip* chip)
{
    const ChipInfo info(checked(gpiod_chip_get_info(chip),
                                "read the GPIO controller's information"));
    return gpiod_chip_info_get_name(info.get());
}

// The first controller that has a line of this name, opened, and the line's
// offset there.
std::optional<std::pair<Chip, unsigned>> openChipWithLine(
    const Root& root, const std::string& name)
{
    for (const auto& path : controllerPaths(root))
    {
        Chip chip(gpiod_chip_open(path.c_str()));
        if (!chip)
        {
            continue;
        }
        const int offset =
            gpiod_chip_get_line_offset_from_name(chip.get(), name.c_str());
        if (offset >= 0)
        {
            return std::pair{std::move(chip), static_cast<unsigned>(offset)};
        }
    }
    return std::nullopt;
}

Request requestLines(gpiod_chip* chip, const std::vector<unsigned>& offsets,
                     gpiod_line_edge edge, const std::string& consumer)
{
    const Settings settings(
        checked(gpiod_line_settings_new(), "allocate GPIO line settings"));
    if (gpiod_line_settings_set_direction(settings.get(),
                                          GPIOD_LINE_DIRECTION_INPUT) < 0 ||
        gpiod_line_settings_set_edge_detection(settings.get(), edge) < 0)
    {
        throwErrno("set GPIO line settings");
    }
    const LineConfig lines(
        checked(gpiod_line_config_new(), "allocate a GPIO line config"));
    if (gpiod_line_config_add_line_settings(lines.get(), offsets.data(),
                                            offsets.size(), settings.get()) < 0)
    {
        throwErrno("configure GPIO lines");
    }
    const RequestConfig request(
        checked(gpiod_request_config_new(), "allocate a GPIO request config"));
    gpiod_request_config_set_consumer(request.get(), consumer.c_str());
    gpiod_request_config_set_event_buffer_size(request.get(), eventBufferSize);
    return Request(
        checked(gpiod_chip_request_lines(chip, request.get(), lines.get()),
                "request GPIO lines"));
}

int eventType(gpiod_edge_event* event)
{
    return gpiod_edge_event_get_event_type(event) ==
                   GPIOD_EDGE_EVENT_RISING_EDGE
               ? gpioRisingEdge
               : gpioFallingEdge;
}

class GpiodFaultLines : public FaultLineGpio
{
  public:
    explicit GpiodFaultLines(Root root) : root(std::move(root)) {}

    std::optional<GpioLineLocation> findLine(const std::string& name) override
    {
        auto found = openChipWithLine(root, name);
        if (!found)
        {
            return std::nullopt;
        }
        return GpioLineLocation{chipName(found->first.get()), found->second};
    }

    void openChip(const std::string& name) override
    {
        releaseLines();
        selected.clear();
        chip.reset();
        const auto path = root.path("/dev/" + name);
        chip = Chip(checked(gpiod_chip_open(path.c_str()),
                            "open GPIO controller " + path));
    }

    bool selectLines(const std::vector<unsigned>& offsets) override
    {
        selected.clear();
        for (unsigned offset : offsets)
        {
            const LineInfo info(
                checked(gpiod_chip_get_line_info(chip.get(), offset),
                        "read GPIO line " + std::to_string(offset)));
            const char* name = gpiod_line_info_get_name(info.get());
            selected.push_back({offset, name == nullptr ? "" : name, {}});
        }
        return !selected.empty();
    }

    void requestBothEdges(const std::string& consumer) override
    {
        std::vector<unsigned> offsets;
        for (const auto& line : selected)
        {
            offsets.push_back(line.offset);
        }
        request =
            requestLines(chip.get(), offsets, GPIOD_LINE_EDGE_BOTH, consumer);
        buffer =
            EventBuffer(checked(gpiod_edge_event_buffer_new(eventBufferSize),
                                "allocate a GPIO event buffer"));
    }

    void releaseLines() override
    {
        request.reset();
        buffer.reset();
        for (auto& line : selected)
        {
            line.events.clear();
        }
    }

    std::vector<unsigned> waitForEvents(int wakeFd) override
    {
        while (true)
        {
            // Events already queued in the kernel are taken without
            // blocking, and all of them, so that none waits for a later
            // edge to be read.
            readQueuedEvents();
            std::vector<unsigned> offsets;
            for (const auto& line : selected)
            {
                if (!line.events.empty())
                {
                    offsets.push_back(line.offset);
                }
            }
            if (!offsets.empty())
            {
                return offsets;
            }
            std::array<pollfd, 2> watched{
                pollfd{gpiod_line_request_get_fd(request.get()), POLLIN, 0},
                pollfd{wakeFd, POLLIN, 0}};
            if (::poll(watched.data(), watched.size(), -1) < 0 &&
                errno != EINTR)
            {
                throwErrno("wait for GPIO events");
            }
            if (watched[1].revents != 0)
            {
                return offsets;
            }
        }
    }

    std::vector<GpioEdgeEvent> readEvents(unsigned offset) override
    {
        for (auto& line : selected)
        {
            if (line.offset == offset)
            {
                return std::exchange(line.events, {});
            }
        }
        throw std::logic_error(
            "no events waited for on line " + std::to_string(offset));
    }

  private:
    struct SelectedLine
    {
        unsigned offset;
        std::string name;
        // Read from the kernel, not yet handed to the monitor.
        std::vector<GpioEdgeEvent> events;
    };

    void readQueuedEvents()
    {
        while (true)
        {
            const int ready =
                gpiod_line_request_wait_edge_events(request.get(), 0);
            if (ready < 0)
            {
                throwErrno("wait for GPIO events");
            }
            if (ready == 0)
            {
                return;
            }
            const int got = gpiod_line_request_read_edge_events(
                request.get(), buffer.get(), eventBufferSize);
            if (got < 0)
            {
                throwErrno("read GPIO events");
            }
            for (int i = 0; i < got; ++i)
            {
                keep(gpiod_edge_event_buffer_get_event(
                    buffer.get(), static_cast<unsigned long>(i)));
            }
        }
    }

    void keep(gpiod_edge_event* event)
    {
        const unsigned offset = gpiod_edge_event_get_line_offset(event);
        for (auto& line : selected)
        {
            if (line.offset == offset)
            {
                line.events.push_back(
                    GpioEdgeEvent{eventType(event), line.name, offset});
                return;
            }
        }
    }

    Root root;
    Chip chip;
    std::vector<SelectedLine> selected;
    Request request;
    EventBuffer buffer;
};

class GpiodLineReader : public LineReader
{
  public:
    explicit GpiodLineReader(Root root) : root(std::move(root)) {}

    std::optional<int> readOnce(const std::string& lineName,
                                const std::string& consumer) override
    {
        auto found = openChipWithLine(root, lineName);
        if (!found)
        {
            return std::nullopt;
        }
        try
        {
            const Request request =
                requestLines(found->first.get(), {found->second},
                             GPIOD_LINE_EDGE_NONE, consumer);
            const auto value =
                gpiod_line_request_get_value(request.get(), found->second);
            return value == GPIOD_LINE_VALUE_ERROR ? -1
                                                   : static_cast<int>(value);
        }
        catch (const std::system_error&)
        {
            return -1;
        }
    }

  private:
    Root root;
};

} // namespace

std::unique_ptr<FaultLineGpio> libgpiodLines(const Root& root)
{
    return std::make_unique<GpiodFaultLines>(root);
}

std::shared_ptr<LineReader> libgpiodLineReader(const Root& root)
{
    return std::make_shared<GpiodLineReader>(root);
}

} // namespace hwtopod
