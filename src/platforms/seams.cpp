#include "seams.hpp"

#include <utility>

namespace Platform
{

Seams machineSeams(hwtopod::Root root)
{
    return Seams{hwtopod::libgpiodLines(), hwtopod::libraryRegisters(),
                 hwtopod::realSleep, std::move(root)};
}

} // namespace Platform
