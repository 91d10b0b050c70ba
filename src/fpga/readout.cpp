#include "readout.hpp"

#include <array>

namespace hwtopod
{

bitset64 bitsetFromBytes(const char* bytes, std::size_t length)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < length && i < 8; ++i)
    {
        value |=
            static_cast<std::uint64_t>(static_cast<unsigned char>(bytes[i]))
            << (8 * i);
    }
    return bitset64(value);
}

std::string bitsetString(const bitset64& bits)
{
    return bits.to_string();
}

std::string hexDump(const char* bytes, std::size_t length, unsigned perLine)
{
    static constexpr std::array<char, 16> digits = {
        '0', '1', '2', '3', '4', '5', '6', '7',
        '8', '9', 'A', 'B', 'C', 'D', 'E', 'F'};
    std::string text = "data:";
    for (std::size_t i = 0; i < length; ++i)
    {
        if (perLine != 0 && i % perLine == 0)
        {
            text += '\n';
            text += std::to_string(i / perLine + 1);
            text += ": ";
        }
        const auto byte = static_cast<unsigned char>(bytes[i]);
        text += "0x";
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
        text += ' ';
    }
    return text;
}

std::string slotName(unsigned connector)
{
    if (connector >= 1 && connector <= 8)
    {
        return "PCIE" + std::to_string(connector) +
               (connector % 2 == 1 ? "_CEMA" : "_CEMB");
    }
    if (connector >= 9 && connector <= 15)
    {
        return "PCIE" + std::to_string(connector);
    }
    return "N/A";
}

} // namespace hwtopod
