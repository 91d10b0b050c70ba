#include "lineReader.hpp"

#include <gpiod.h>

namespace hwtopod
{

namespace
{
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

std::unique_ptr<LineReader>& current()
{
    static std::unique_ptr<LineReader> reader =
        std::make_unique<GpiodLineReader>();
    return reader;
}
} // namespace

LineReader& lineReader()
{
    return *current();
}

void setLineReader(std::unique_ptr<LineReader> reader)
{
    current() = reader ? std::move(reader)
                       : std::make_unique<GpiodLineReader>();
}

} // namespace hwtopod
