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

} // namespace

std::shared_ptr<LineReader> libgpiodLineReader()
{
    return std::make_shared<GpiodLineReader>();
}

} // namespace hwtopod
