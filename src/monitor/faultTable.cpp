#include "faultTable.hpp"

namespace hwtopod
{

const std::vector<FpgaGpioEntry>& fpgaGpioTable()
{
    static const std::vector<FpgaGpioEntry> rows;
    return rows;
}

} // namespace hwtopod
