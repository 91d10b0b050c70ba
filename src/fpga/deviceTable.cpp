#include "deviceTable.hpp"

namespace hwtopod
{

std::map<std::uint32_t, FpgaDeviceBit>& fpgaDeviceTable()
{
    // All rows are on remote FPGA 0 (device 1).
    static std::map<std::uint32_t, FpgaDeviceBit> table = {
        {0, {1, "CPU_1", 28, 7, 3, true, false, 1, 12}},
        {1, {1, "CPU_2", 28, 8, 3, true, false, 2, 12}},
        {3, {1, "OCP_0", 12, 6, 0, false, false, 0, 20}},
        {4, {1, "OCP_1", 12, 6, 1, false, false, 1, 20}},
        {5, {1, "x8_FRONT_OCP", 12, 6, 3, false, false, 0, 0}},
        {6, {1, "x16_FRONT_OCP", 12, 6, 2, false, false, 0, 0}},
        {9, {1, "FRONT_PANEL", 18, 14, 0, true, false, 0, 33}},
        {10, {1, "PONG", 12, 5, 5, false, false, 0, 0}},
        {11, {1, "INTRUSSION_CONN", 12, 6, 6, false, false, 0, 0}},
        {87, {1, "FRONT_IO_CABLE", 12, 5, 7, false, false, 0, 0}},
        {89,
         {1, "KELVANE open loop liquid leak", 12, 8, 7, false, false, 0, 6}},
        {90, {1, "open loop liquid leak", 12, 8, 6, false, false, 0, 6}},
    };
    return table;
}

} // namespace hwtopod
