#pragma once

#include "platforms/seams.hpp"
#include "recordedSleeps.hpp"
#include "sandbox.hpp"

namespace hwtopod::test
{

// A platform's seams in a test: its files below root, its waits recorded in
// sleeps when given, GPIO and registers as the daemon has them.
inline Platform::Seams sandboxSeams(const TempDir& root,
                                    RecordedSleeps* sleeps = nullptr)
{
    auto seams = Platform::machineSeams(Root(root.path().string()));
    if (sleeps != nullptr)
    {
        seams.sleep = sleeps->function();
    }
    return seams;
}

} // namespace hwtopod::test
