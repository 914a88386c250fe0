#pragma once

#include <cstdint>

namespace velmora::testing {

// A loopback port that nothing listened on a moment ago.
std::uint16_t freePort();

}  // namespace velmora::testing
