// Stand-in of the GPIO line library 1.6 for the simulator: a shared
// library with the same soname and C calls, loaded ahead of the real one
// through LD_LIBRARY_PATH, so that the daemon and the library's C++ binding
// run unchanged on a machine without a GPIO controller. The controller it
// serves is machine.hpp's.

#include "machine.hpp"

#include <gpiod.h>
#include <poll.h>
#include <time.h>

#include <cerrno>
#include <string>
#include <vector>

struct gpiod_line
{
    struct gpiod_chip* chip = nullptr;
    unsigned int offset = 0;
    bool requested = false;
    bool forEvents = false;
    int direction = GPIOD_LINE_DIRECTION_INPUT;
    std::string consumer;
};

struct gpiod_chip
{
    std::vector<gpiod_line> lines;
};

struct gpiod_chip_iter
{
    std::vector<gpiod_chip*> chips;
    std::size_t next = 0;
    gpiod_chip* current = nullptr;
};

struct gpiod_line_iter
{
    gpiod_chip* chip = nullptr;
    unsigned int next = 0;
};

namespace
{
using namespace simgpio;

bool present()
{
    auto& m = machine();
    std::lock_guard lock(m.mutex);
    load(m);
    return m.present;
}

gpiod_chip* newChip()
{
    auto& m = machine();
    std::lock_guard lock(m.mutex);
    load(m);
    if (!m.present)
    {
        errno = ENOENT;
        return nullptr;
    }
    auto* chip = new gpiod_chip;
    chip->lines.resize(m.lines.size());
    for (unsigned int i = 0; i < chip->lines.size(); ++i)
    {
        chip->lines[i].chip = chip;
        chip->lines[i].offset = i;
    }
    return chip;
}

int requestLines(gpiod_line_bulk* bulk, const gpiod_line_request_config* config,
                 const int* /*defaults*/)
{
    for (unsigned int i = 0; i < bulk->num_lines; ++i)
    {
        if (bulk->lines[i]->requested)
        {
            errno = EBUSY;
            return -1;
        }
    }
    const int type = config->request_type;
    for (unsigned int i = 0; i < bulk->num_lines; ++i)
    {
        auto* line = bulk->lines[i];
        line->requested = true;
        line->forEvents = type == GPIOD_LINE_REQUEST_EVENT_RISING_EDGE ||
                          type == GPIOD_LINE_REQUEST_EVENT_FALLING_EDGE ||
                          type == GPIOD_LINE_REQUEST_EVENT_BOTH_EDGES;
        line->direction = type == GPIOD_LINE_REQUEST_DIRECTION_OUTPUT
                              ? GPIOD_LINE_DIRECTION_OUTPUT
                              : GPIOD_LINE_DIRECTION_INPUT;
        line->consumer = config->consumer == nullptr ? "" : config->consumer;
    }
    return 0;
}

long long milliseconds(const timespec* timeout)
{
    if (timeout == nullptr)
    {
        return -1;
    }
    // The C++ binding turns a negative time-out into a huge one.
    if (timeout->tv_sec < 0 || timeout->tv_sec > 1000000)
    {
        return -1;
    }
    return static_cast<long long>(timeout->tv_sec) * 1000 +
           timeout->tv_nsec / 1000000;
}

} // namespace

// The definitions keep the parameter names of the library header they
// implement.
// NOLINTBEGIN(readability-identifier-naming)
extern "C"
{
const char* gpiod_version_string(void)
{
    return "1.6.3-sim";
}

struct gpiod_chip* gpiod_chip_open(const char* path)
{
    if (!isThisChip(path))
    {
        errno = ENOENT;
        return nullptr;
    }
    return newChip();
}

struct gpiod_chip* gpiod_chip_open_by_name(const char* name)
{
    return gpiod_chip_open(name);
}

struct gpiod_chip* gpiod_chip_open_by_number(unsigned int num)
{
    return gpiod_chip_open(std::to_string(num).c_str());
}

struct gpiod_chip* gpiod_chip_open_by_label(const char* label)
{
    return gpiod_chip_open(label);
}

struct gpiod_chip* gpiod_chip_open_lookup(const char* descr)
{
    return gpiod_chip_open(descr);
}

void gpiod_chip_close(struct gpiod_chip* chip)
{
    delete chip;
}

const char* gpiod_chip_name(struct gpiod_chip* /*chip*/)
{
    return chipName;
}

const char* gpiod_chip_label(struct gpiod_chip* /*chip*/)
{
    return chipLabel;
}

unsigned int gpiod_chip_num_lines(struct gpiod_chip* chip)
{
    return static_cast<unsigned int>(chip->lines.size());
}

struct gpiod_line* gpiod_chip_get_line(struct gpiod_chip* chip,
                                       unsigned int offset)
{
    if (offset >= chip->lines.size())
    {
        errno = EINVAL;
        return nullptr;
    }
    return &chip->lines[offset];
}

int gpiod_chip_get_lines(struct gpiod_chip* chip, unsigned int* offsets,
                         unsigned int num_offsets, struct gpiod_line_bulk* bulk)
{
    gpiod_line_bulk_init(bulk);
    for (unsigned int i = 0; i < num_offsets; ++i)
    {
        auto* line = gpiod_chip_get_line(chip, offsets[i]);
        if (line == nullptr)
        {
            return -1;
        }
        gpiod_line_bulk_add(bulk, line);
    }
    return 0;
}

int gpiod_chip_get_all_lines(struct gpiod_chip* chip,
                             struct gpiod_line_bulk* bulk)
{
    gpiod_line_bulk_init(bulk);
    for (auto& line : chip->lines)
    {
        gpiod_line_bulk_add(bulk, &line);
    }
    return 0;
}

struct gpiod_line* gpiod_chip_find_line(struct gpiod_chip* chip,
                                        const char* name)
{
    auto& m = machine();
    std::lock_guard lock(m.mutex);
    for (unsigned int i = 0; i < m.lines.size() && i < chip->lines.size(); ++i)
    {
        if (m.lines[i].name == name)
        {
            return &chip->lines[i];
        }
    }
    errno = ENOENT;
    return nullptr;
}

struct gpiod_chip_iter* gpiod_chip_iter_new(void)
{
    auto* iter = new gpiod_chip_iter;
    if (present())
    {
        iter->chips.push_back(newChip());
    }
    return iter;
}

void gpiod_chip_iter_free_noclose(struct gpiod_chip_iter* iter)
{
    // Chips not handed out yet are the iterator's own.
    for (std::size_t i = iter->next; i < iter->chips.size(); ++i)
    {
        delete iter->chips[i];
    }
    delete iter;
}

void gpiod_chip_iter_free(struct gpiod_chip_iter* iter)
{
    delete iter->current;
    iter->current = nullptr;
    gpiod_chip_iter_free_noclose(iter);
}

struct gpiod_chip* gpiod_chip_iter_next_noclose(struct gpiod_chip_iter* iter)
{
    if (iter->next >= iter->chips.size())
    {
        return nullptr;
    }
    return iter->chips[iter->next++];
}

struct gpiod_chip* gpiod_chip_iter_next(struct gpiod_chip_iter* iter)
{
    delete iter->current;
    iter->current = gpiod_chip_iter_next_noclose(iter);
    return iter->current;
}

struct gpiod_line_iter* gpiod_line_iter_new(struct gpiod_chip* chip)
{
    auto* iter = new gpiod_line_iter;
    iter->chip = chip;
    return iter;
}

void gpiod_line_iter_free(struct gpiod_line_iter* iter)
{
    delete iter;
}

struct gpiod_line* gpiod_line_iter_next(struct gpiod_line_iter* iter)
{
    if (iter->next >= iter->chip->lines.size())
    {
        return nullptr;
    }
    return &iter->chip->lines[iter->next++];
}

unsigned int gpiod_line_offset(struct gpiod_line* line)
{
    return line->offset;
}

const char* gpiod_line_name(struct gpiod_line* line)
{
    auto& m = machine();
    std::lock_guard lock(m.mutex);
    return line->offset < m.lines.size() ? m.lines[line->offset].name.c_str()
                                         : nullptr;
}

const char* gpiod_line_consumer(struct gpiod_line* line)
{
    return line->requested ? line->consumer.c_str() : nullptr;
}

int gpiod_line_direction(struct gpiod_line* line)
{
    return line->direction;
}

int gpiod_line_active_state(struct gpiod_line* /*line*/)
{
    return GPIOD_LINE_ACTIVE_STATE_HIGH;
}

int gpiod_line_bias(struct gpiod_line* /*line*/)
{
    return GPIOD_LINE_BIAS_AS_IS;
}

bool gpiod_line_is_used(struct gpiod_line* line)
{
    return line->requested;
}

bool gpiod_line_is_open_drain(struct gpiod_line* /*line*/)
{
    return false;
}

bool gpiod_line_is_open_source(struct gpiod_line* /*line*/)
{
    return false;
}

int gpiod_line_update(struct gpiod_line* /*line*/)
{
    return 0;
}

bool gpiod_line_is_requested(struct gpiod_line* line)
{
    return line->requested;
}

bool gpiod_line_is_free(struct gpiod_line* line)
{
    return !line->requested;
}

struct gpiod_chip* gpiod_line_get_chip(struct gpiod_line* line)
{
    return line->chip;
}

int gpiod_line_request_bulk(struct gpiod_line_bulk* bulk,
                            const struct gpiod_line_request_config* config,
                            const int* default_vals)
{
    return requestLines(bulk, config, default_vals);
}

int gpiod_line_request(struct gpiod_line* line,
                       const struct gpiod_line_request_config* config,
                       int default_val)
{
    gpiod_line_bulk bulk;
    gpiod_line_bulk_init(&bulk);
    gpiod_line_bulk_add(&bulk, line);
    return requestLines(&bulk, config, &default_val);
}

int gpiod_line_request_input(struct gpiod_line* line, const char* consumer)
{
    gpiod_line_request_config config{consumer,
                                     GPIOD_LINE_REQUEST_DIRECTION_INPUT, 0};
    return gpiod_line_request(line, &config, 0);
}

void gpiod_line_release_bulk(struct gpiod_line_bulk* bulk)
{
    for (unsigned int i = 0; i < bulk->num_lines; ++i)
    {
        bulk->lines[i]->requested = false;
        bulk->lines[i]->forEvents = false;
    }
}

void gpiod_line_release(struct gpiod_line* line)
{
    line->requested = false;
    line->forEvents = false;
}

int gpiod_line_get_value_bulk(struct gpiod_line_bulk* bulk, int* values)
{
    auto& m = machine();
    std::lock_guard lock(m.mutex);
    drainFifo(m);
    for (unsigned int i = 0; i < bulk->num_lines; ++i)
    {
        if (!bulk->lines[i]->requested)
        {
            errno = EPERM;
            return -1;
        }
        values[i] = m.lines[bulk->lines[i]->offset].level;
    }
    return 0;
}

int gpiod_line_get_value(struct gpiod_line* line)
{
    int value = 0;
    gpiod_line_bulk bulk;
    gpiod_line_bulk_init(&bulk);
    gpiod_line_bulk_add(&bulk, line);
    return gpiod_line_get_value_bulk(&bulk, &value) < 0 ? -1 : value;
}

int gpiod_line_set_value_bulk(struct gpiod_line_bulk* /*bulk*/,
                              const int* /*values*/)
{
    errno = EPERM;
    return -1;
}

int gpiod_line_set_config_bulk(struct gpiod_line_bulk* /*bulk*/,
                               int /*direction*/, int /*flags*/,
                               const int* /*values*/)
{
    errno = EOPNOTSUPP;
    return -1;
}

int gpiod_line_set_flags_bulk(struct gpiod_line_bulk* /*bulk*/, int /*flags*/)
{
    errno = EOPNOTSUPP;
    return -1;
}

int gpiod_line_set_direction_input_bulk(struct gpiod_line_bulk* /*bulk*/)
{
    errno = EOPNOTSUPP;
    return -1;
}

int gpiod_line_set_direction_output_bulk(struct gpiod_line_bulk* /*bulk*/,
                                         const int* /*values*/)
{
    errno = EOPNOTSUPP;
    return -1;
}

int gpiod_line_event_wait_bulk(struct gpiod_line_bulk* bulk,
                               const struct timespec* timeout,
                               struct gpiod_line_bulk* event_bulk)
{
    auto& m = machine();
    return waitForEdges(m, static_cast<int>(milliseconds(timeout)), [&]() {
        if (event_bulk != nullptr)
        {
            gpiod_line_bulk_init(event_bulk);
        }
        bool any = false;
        for (unsigned int i = 0; i < bulk->num_lines; ++i)
        {
            auto* line = bulk->lines[i];
            if (line->forEvents && !m.lines[line->offset].pending.empty())
            {
                any = true;
                if (event_bulk != nullptr)
                {
                    gpiod_line_bulk_add(event_bulk, line);
                }
            }
        }
        return any;
    });
}

int gpiod_line_event_wait(struct gpiod_line* line,
                          const struct timespec* timeout)
{
    gpiod_line_bulk bulk;
    gpiod_line_bulk_init(&bulk);
    gpiod_line_bulk_add(&bulk, line);
    return gpiod_line_event_wait_bulk(&bulk, timeout, nullptr);
}

int gpiod_line_event_read_multiple(struct gpiod_line* line,
                                   struct gpiod_line_event* events,
                                   unsigned int num_events)
{
    if (!line->forEvents)
    {
        errno = EPERM;
        return -1;
    }
    auto& m = machine();
    std::lock_guard lock(m.mutex);
    drainFifo(m);
    auto& pending = m.lines[line->offset].pending;
    unsigned int count = 0;
    while (count < num_events && !pending.empty())
    {
        const Edge& edge = pending.front();
        events[count++] = gpiod_line_event{
            edge.time, edge.rising ? GPIOD_LINE_EVENT_RISING_EDGE
                                   : GPIOD_LINE_EVENT_FALLING_EDGE};
        pending.pop_front();
    }
    return static_cast<int>(count);
}

int gpiod_line_event_read(struct gpiod_line* line,
                          struct gpiod_line_event* event)
{
    const int got = gpiod_line_event_read_multiple(line, event, 1);
    if (got == 0)
    {
        errno = EAGAIN;
        return -1;
    }
    return got < 0 ? -1 : 0;
}

int gpiod_line_event_get_fd(struct gpiod_line* line)
{
    if (!line->forEvents)
    {
        errno = EPERM;
        return -1;
    }
    auto& m = machine();
    std::lock_guard lock(m.mutex);
    return edgeFifo(m);
}

struct gpiod_line* gpiod_line_find(const char* name)
{
    auto* chip = newChip();
    if (chip == nullptr)
    {
        errno = ENOENT;
        return nullptr;
    }
    auto* line = gpiod_chip_find_line(chip, name);
    if (line == nullptr)
    {
        delete chip;
        errno = ENOENT;
    }
    return line;
}

void gpiod_line_close_chip(struct gpiod_line* line)
{
    delete line->chip;
}

} // extern "C"
// NOLINTEND(readability-identifier-naming)
