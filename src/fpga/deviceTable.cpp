#include "deviceTable.hpp"

namespace hwtopod
{

namespace
{
// fpgaDevices and the read-out rely on one row a key, in key order, each
// bit inside the register space.
constexpr bool rowsWellFormed()
{
    for (std::size_t i = 0; i < fpgaDeviceRows.size(); ++i)
    {
        const auto& row = fpgaDeviceRows[i];
        if ((i > 0 && fpgaDeviceRows[i - 1].key >= row.key) || row.block > 63 ||
            row.offset > 15 || row.bit > 7)
        {
            return false;
        }
    }
    return true;
}
static_assert(rowsWellFormed());
} // namespace

std::map<std::uint32_t, FpgaDeviceBit>& fpgaDeviceTable()
{
    static std::map<std::uint32_t, FpgaDeviceBit> table = [] {
        std::map<std::uint32_t, FpgaDeviceBit> rows;
        for (const auto& row : fpgaDeviceRows)
        {
            rows.emplace(
                row.key,
                FpgaDeviceBit{row.fpgaDevice, std::string(row.name), row.block,
                              row.offset, row.bit, row.inverted, false,
                              row.index, row.type});
        }
        return rows;
    }();
    return table;
}

} // namespace hwtopod
