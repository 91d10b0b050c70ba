#pragma once

#include <memory>
#include <optional>
#include <string>

namespace hwtopod
{

// Reads a named GPIO line once, as an input. The daemon reads its jumper
// through libgpiod; tests put a fake here, since this machine has no GPIO
// controller.
class LineReader
{
  public:
    virtual ~LineReader() = default;

    // Empty when no chip has such a line; otherwise the level, -1 when the
    // read failed.
    virtual std::optional<int> readOnce(const std::string& lineName,
                                        const std::string& consumer) = 0;
};

LineReader& lineReader();

// Replaces the reader; null restores the libgpiod one.
void setLineReader(std::unique_ptr<LineReader> reader);

} // namespace hwtopod
