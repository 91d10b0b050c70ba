#pragma once

#include <boost/container/flat_map.hpp>

#include <bitset>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace hwtopod
{

// Value of a D-Bus property read from another service, in this order of
// alternatives.
using DbusVariant =
    std::variant<std::string, std::int64_t, std::uint64_t, double, std::int32_t,
                 std::uint32_t, std::int16_t, std::uint16_t, std::uint8_t, bool,
                 std::vector<std::string>, std::vector<std::uint8_t>>;

// All properties of one VPD object, the interface level flattened away.
using VpdProperties = boost::container::flat_map<std::string, DbusVariant>;

// Interfaces of one object, by name, each with its properties.
using InterfaceProperties =
    boost::container::flat_map<std::string, VpdProperties>;

// Bit i stands for position i + 1: a riser or a PCIe slot number.
using bitset64 = std::bitset<64>;

} // namespace hwtopod
