// Stand-in of the GPIO line library 2 for the simulator: a shared library
// with the same soname and the C calls the daemon makes, loaded ahead of the
// real one through LD_LIBRARY_PATH, so that the daemon's own request code
// runs unchanged on a machine without a GPIO controller. The controller it
// serves is machine.hpp's; its device node is any path whose last element is
// its name, so that the daemon finds it in the /dev of its sandbox.

#include "machine.hpp"

#include <gpiod.h>
#include <poll.h>

#include <cerrno>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct gpiod_chip
{
    std::string path;
};

struct gpiod_chip_info
{
    std::size_t lines = 0;
};

struct gpiod_line_info
{
    unsigned int offset = 0;
    std::string name;
    std::optional<std::string> consumer;
};

struct gpiod_line_settings
{
    gpiod_line_direction direction = GPIOD_LINE_DIRECTION_AS_IS;
    gpiod_line_edge edge = GPIOD_LINE_EDGE_NONE;
};

struct gpiod_line_config
{
    std::vector<std::pair<unsigned int, gpiod_line_settings>> lines;
};

struct gpiod_request_config
{
    std::string consumer;
};

struct gpiod_line_request
{
    std::vector<std::pair<unsigned int, gpiod_line_settings>> lines;
};

struct gpiod_edge_event
{
    gpiod_edge_event_type type = GPIOD_EDGE_EVENT_RISING_EDGE;
    std::uint64_t nanoseconds = 0;
    unsigned int offset = 0;
    unsigned long sequence = 0;
};

struct gpiod_edge_event_buffer
{
    std::size_t capacity = 0;
    std::vector<gpiod_edge_event> events;
};

namespace
{
using simgpio::Machine;

Machine& loaded()
{
    auto& m = simgpio::machine();
    load(m);
    return m;
}

bool watchesEdges(const gpiod_line_request& request, Machine& m)
{
    for (const auto& [offset, settings] : request.lines)
    {
        if (settings.edge != GPIOD_LINE_EDGE_NONE &&
            !m.lines[offset].pending.empty())
        {
            return true;
        }
    }
    return false;
}

// The request's line whose oldest pending edge came first, if any.
simgpio::LineState* nextEdge(const gpiod_line_request& request, Machine& m,
                             unsigned int& offset)
{
    simgpio::LineState* next = nullptr;
    for (const auto& [line, settings] : request.lines)
    {
        auto& state = m.lines[line];
        if (settings.edge != GPIOD_LINE_EDGE_NONE && !state.pending.empty() &&
            (next == nullptr ||
             state.pending.front().sequence < next->pending.front().sequence))
        {
            next = &state;
            offset = line;
        }
    }
    return next;
}

} // namespace

// The definitions keep the parameter names of the library header they
// implement.
// NOLINTBEGIN(readability-identifier-naming)
extern "C"
{
const char* gpiod_api_version(void)
{
    return "2.2.1-sim";
}

bool gpiod_is_gpiochip_device(const char* path)
{
    auto& m = simgpio::machine();
    std::lock_guard lock(m.mutex);
    return loaded().present && simgpio::isThisChip(path);
}

struct gpiod_chip* gpiod_chip_open(const char* path)
{
    if (!gpiod_is_gpiochip_device(path))
    {
        errno = ENOENT;
        return nullptr;
    }
    return new gpiod_chip{path};
}

void gpiod_chip_close(struct gpiod_chip* chip)
{
    delete chip;
}

struct gpiod_chip_info* gpiod_chip_get_info(struct gpiod_chip* /*chip*/)
{
    auto& m = simgpio::machine();
    std::lock_guard lock(m.mutex);
    return new gpiod_chip_info{loaded().lines.size()};
}

void gpiod_chip_info_free(struct gpiod_chip_info* info)
{
    delete info;
}

const char* gpiod_chip_info_get_name(struct gpiod_chip_info* /*info*/)
{
    return simgpio::chipName;
}

const char* gpiod_chip_info_get_label(struct gpiod_chip_info* /*info*/)
{
    return simgpio::chipLabel;
}

size_t gpiod_chip_info_get_num_lines(struct gpiod_chip_info* info)
{
    return info->lines;
}

struct gpiod_line_info* gpiod_chip_get_line_info(struct gpiod_chip* /*chip*/,
                                                 unsigned int offset)
{
    auto& m = simgpio::machine();
    std::lock_guard lock(m.mutex);
    if (offset >= loaded().lines.size())
    {
        errno = EINVAL;
        return nullptr;
    }
    const auto& line = m.lines[offset];
    return new gpiod_line_info{offset, line.name, line.heldBy};
}

void gpiod_line_info_free(struct gpiod_line_info* info)
{
    delete info;
}

const char* gpiod_line_info_get_name(struct gpiod_line_info* info)
{
    return info->name.c_str();
}

bool gpiod_line_info_is_used(struct gpiod_line_info* info)
{
    return info->consumer.has_value();
}

const char* gpiod_line_info_get_consumer(struct gpiod_line_info* info)
{
    return info->consumer ? info->consumer->c_str() : nullptr;
}

int gpiod_chip_get_line_offset_from_name(struct gpiod_chip* /*chip*/,
                                         const char* name)
{
    auto& m = simgpio::machine();
    std::lock_guard lock(m.mutex);
    const auto& lines = loaded().lines;
    for (std::size_t i = 0; i < lines.size(); ++i)
    {
        if (lines[i].name == name)
        {
            return static_cast<int>(i);
        }
    }
    errno = ENOENT;
    return -1;
}

struct gpiod_line_settings* gpiod_line_settings_new(void)
{
    return new gpiod_line_settings;
}

void gpiod_line_settings_free(struct gpiod_line_settings* settings)
{
    delete settings;
}

int gpiod_line_settings_set_direction(struct gpiod_line_settings* settings,
                                      enum gpiod_line_direction direction)
{
    settings->direction = direction;
    return 0;
}

int gpiod_line_settings_set_edge_detection(struct gpiod_line_settings* settings,
                                           enum gpiod_line_edge edge)
{
    settings->edge = edge;
    return 0;
}

struct gpiod_line_config* gpiod_line_config_new(void)
{
    return new gpiod_line_config;
}

void gpiod_line_config_free(struct gpiod_line_config* config)
{
    delete config;
}

int gpiod_line_config_add_line_settings(
    struct gpiod_line_config* config, const unsigned int* offsets,
    size_t num_offsets, struct gpiod_line_settings* settings)
{
    for (std::size_t i = 0; i < num_offsets; ++i)
    {
        config->lines.emplace_back(offsets[i], *settings);
    }
    return 0;
}

struct gpiod_request_config* gpiod_request_config_new(void)
{
    return new gpiod_request_config;
}

void gpiod_request_config_free(struct gpiod_request_config* config)
{
    delete config;
}

void gpiod_request_config_set_consumer(struct gpiod_request_config* config,
                                       const char* consumer)
{
    config->consumer = consumer == nullptr ? "" : consumer;
}

void gpiod_request_config_set_event_buffer_size(
    struct gpiod_request_config* /*config*/, size_t /*event_buffer_size*/)
{}

// As the kernel does: a line held by another request is refused whole.
struct gpiod_line_request* gpiod_chip_request_lines(
    struct gpiod_chip* /*chip*/, struct gpiod_request_config* req_cfg,
    struct gpiod_line_config* line_cfg)
{
    auto& m = simgpio::machine();
    std::lock_guard lock(m.mutex);
    loaded();
    if (line_cfg->lines.empty())
    {
        errno = EINVAL;
        return nullptr;
    }
    for (const auto& [offset, settings] : line_cfg->lines)
    {
        if (offset >= m.lines.size())
        {
            errno = EINVAL;
            return nullptr;
        }
        if (m.lines[offset].heldBy)
        {
            errno = EBUSY;
            return nullptr;
        }
    }
    const std::string consumer = req_cfg == nullptr ? "" : req_cfg->consumer;
    for (const auto& line : line_cfg->lines)
    {
        m.lines[line.first].heldBy = consumer;
    }
    return new gpiod_line_request{line_cfg->lines};
}

void gpiod_line_request_release(struct gpiod_line_request* request)
{
    if (request == nullptr)
    {
        return;
    }
    auto& m = simgpio::machine();
    {
        std::lock_guard lock(m.mutex);
        for (const auto& line : request->lines)
        {
            m.lines[line.first].heldBy.reset();
        }
    }
    delete request;
}

enum gpiod_line_value gpiod_line_request_get_value(
    struct gpiod_line_request* request, unsigned int offset)
{
    auto& m = simgpio::machine();
    std::lock_guard lock(m.mutex);
    drainFifo(m);
    for (const auto& line : request->lines)
    {
        if (line.first == offset)
        {
            return m.lines[offset].level != 0 ? GPIOD_LINE_VALUE_ACTIVE
                                              : GPIOD_LINE_VALUE_INACTIVE;
        }
    }
    errno = EINVAL;
    return GPIOD_LINE_VALUE_ERROR;
}

int gpiod_line_request_get_fd(struct gpiod_line_request* /*request*/)
{
    auto& m = simgpio::machine();
    std::lock_guard lock(m.mutex);
    return edgeFifo(m);
}

int gpiod_line_request_wait_edge_events(struct gpiod_line_request* request,
                                        int64_t timeout_ns)
{
    auto& m = simgpio::machine();
    // A negative time-out waits for ever.
    const int wait =
        timeout_ns < 0
            ? -1
            : static_cast<int>(std::min<int64_t>(
                  timeout_ns / 1000000, std::numeric_limits<int>::max()));
    return simgpio::waitForEdges(m, wait, [&]() {
        return watchesEdges(*request, m);
    });
}

int gpiod_line_request_read_edge_events(struct gpiod_line_request* request,
                                        struct gpiod_edge_event_buffer* buffer,
                                        size_t max_events)
{
    auto& m = simgpio::machine();
    std::lock_guard lock(m.mutex);
    drainFifo(m);
    buffer->events.clear();
    unsigned int offset = 0;
    while (buffer->events.size() < std::min(max_events, buffer->capacity))
    {
        auto* line = nextEdge(*request, m, offset);
        if (line == nullptr)
        {
            break;
        }
        const auto& edge = line->pending.front();
        buffer->events.push_back(gpiod_edge_event{
            edge.rising ? GPIOD_EDGE_EVENT_RISING_EDGE
                        : GPIOD_EDGE_EVENT_FALLING_EDGE,
            static_cast<std::uint64_t>(edge.time.tv_sec) * 1000000000U +
                static_cast<std::uint64_t>(edge.time.tv_nsec),
            offset, static_cast<unsigned long>(edge.sequence)});
        line->pending.pop_front();
    }
    return static_cast<int>(buffer->events.size());
}

struct gpiod_edge_event_buffer* gpiod_edge_event_buffer_new(size_t capacity)
{
    return new gpiod_edge_event_buffer{capacity == 0 ? 64 : capacity, {}};
}

void gpiod_edge_event_buffer_free(struct gpiod_edge_event_buffer* buffer)
{
    delete buffer;
}

struct gpiod_edge_event* gpiod_edge_event_buffer_get_event(
    struct gpiod_edge_event_buffer* buffer, unsigned long index)
{
    return index < buffer->events.size() ? &buffer->events[index] : nullptr;
}

size_t gpiod_edge_event_buffer_get_num_events(
    struct gpiod_edge_event_buffer* buffer)
{
    return buffer->events.size();
}

enum gpiod_edge_event_type gpiod_edge_event_get_event_type(
    struct gpiod_edge_event* event)
{
    return event->type;
}

uint64_t gpiod_edge_event_get_timestamp_ns(struct gpiod_edge_event* event)
{
    return event->nanoseconds;
}

unsigned int gpiod_edge_event_get_line_offset(struct gpiod_edge_event* event)
{
    return event->offset;
}

unsigned long gpiod_edge_event_get_global_seqno(struct gpiod_edge_event* event)
{
    return event->sequence;
}

} // extern "C"
// NOLINTEND(readability-identifier-naming)
