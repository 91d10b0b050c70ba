#pragma once

// Shared pieces of the fuzz targets: a sandbox root for every file the
// daemon reads or writes, no system bus, a journal that takes nothing, and
// D-Bus values decoded from fuzzer bytes.

#include "common/paths.hpp"
#include "common/types.hpp"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <string>

namespace hwtopod::fuzz
{

// Makes a private root directory with /var/configuration and /dev, points
// the system bus at a socket that does not exist, and silences standard
// output. Returns the root. Safe to call more than once.
const std::string& setUpSandbox();

// The daemon's root placed at the sandbox, set up first.
inline Root sandboxRoot()
{
    return Root(setUpSandbox());
}

// Writes bytes to the file at the logical path below the sandbox root.
void writeSandboxFile(const std::string& logicalPath, const std::string& text);

// Ends the run with a finding when an expectation on the output fails.
inline void check(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

// One D-Bus value of any alternative the daemon reads from other services.
DbusVariant consumeVariant(FuzzedDataProvider& data);

// Properties of one interface: up to 12 names, each from a small set that
// the daemon looks for or from the input.
VpdProperties consumeProperties(FuzzedDataProvider& data);

// The interfaces of one InterfacesAdded signal.
InterfaceProperties consumeInterfaces(FuzzedDataProvider& data);

} // namespace hwtopod::fuzz
