#pragma once

#include "common/paths.hpp"
#include "events/events.hpp"

namespace hwtopod
{

// Makes, below root, /dev/bp<index>_i2c, /dev/pcie_slot<index>_i2c or
// /dev/midplane<index>_i2c (by type) a symbolic link to the sysfs directory
// of I2C bus `bus`, replacing a link of an earlier run. True when the link
// has been made. Logs and returns false for another type, a bus that sysfs
// does not know, or a link that cannot be made. A sysfs entry that is not a
// link throws std::filesystem::filesystem_error.
bool createI2cLink(const Root& root, DeviceType type, unsigned index,
                   unsigned bus);

} // namespace hwtopod
