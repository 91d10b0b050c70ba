#pragma once

namespace Platform
{

// Casts the daemon's vote on powering on at the power management service:
// true asks for permission, false withdraws it. Never throws.
void powerVote(bool on);

} // namespace Platform
