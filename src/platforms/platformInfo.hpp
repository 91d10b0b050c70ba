#pragma once

#include <string>

namespace Platform
{

// The firmware build identifier of /etc/os-release, or the default one.
std::string readBuildId();

// MiniVersion: the template's two-digit number made even or odd with the
// build, followed by the template's letter.
std::string miniVersionFor(const std::string& templateVersion,
                           const std::string& buildId);

} // namespace Platform
