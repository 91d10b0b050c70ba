#pragma once

#include "kelvane1u.hpp"

#include <memory>

namespace Platform
{

// Bodies of the two long-lived threads that main starts. Neither returns in
// operation.
void hardwareThread(std::shared_ptr<Kelvane1u> platform);
void serviceThread(std::shared_ptr<Kelvane1u> platform);

} // namespace Platform
