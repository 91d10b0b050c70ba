#pragma once

#include "common/paths.hpp"

#include <memory>
#include <optional>
#include <string>

namespace hwtopod
{

// Reads a named GPIO line once, as an input: the jumper's seam. The daemon
// reads it through libgpiod; tests give the platform a fake.
class LineReader
{
  public:
    virtual ~LineReader() = default;

    // Empty when no chip has such a line; otherwise the level, -1 when the
    // read failed.
    virtual std::optional<int> readOnce(const std::string& lineName,
                                        const std::string& consumer) = 0;
};

std::shared_ptr<LineReader> libgpiodLineReader(const Root& root);

} // namespace hwtopod
