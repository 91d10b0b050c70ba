#pragma once

#include "common/types.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>

namespace hwtopod
{

// A VPD property as an unsigned 64-bit number: unsigned numbers and bytes as
// they are, signed numbers when not negative (else 0), booleans as 1 or 0,
// and 0 for strings, doubles and arrays.
std::uint64_t readVpdNumber(const DbusVariant& value);

// A VPD property as a JSON value of the same kind: a string stays a string,
// numbers stay numbers (signed or unsigned as on the bus), a boolean stays a
// boolean, and arrays become arrays of strings or of numbers.
nlohmann::json vpdValueToJson(const DbusVariant& value);

} // namespace hwtopod
