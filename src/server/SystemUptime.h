#pragma once

namespace velmora {

// Seconds since the system started, suspended time included. Never goes back, and a change of
// the wall clock does not move it.
double systemUptimeSeconds();

}  // namespace velmora
