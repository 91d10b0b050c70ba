#pragma once

#include "common/types.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

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

// The daemon's copy of the VPD service: object path to all properties of all
// its interfaces.
using VpdCache = boost::container::flat_map<std::string, VpdProperties>;

// Adds the properties of more to entry; a name that entry holds already
// keeps its old value.
void mergeVpdProperties(VpdProperties& entry, const VpdProperties& more);

// Merges one object's interfaces into the cache in ascending order of the
// interface name, so that the first interface in name order wins a name that
// two of them hold. Interfaces whose name contains "org.freedesktop.DBus"
// are skipped when skipStandard is set; an object left with nothing gets no
// entry then.
void mergeVpdObject(VpdCache& cache, const std::string& path,
                    const InterfaceProperties& interfaces, bool skipStandard);

// mergeVpdObject with skipStandard for each object, in the given order.
void mergeVpdObjects(
    VpdCache& cache,
    const std::vector<std::pair<std::string, InterfaceProperties>>& objects);

} // namespace hwtopod
