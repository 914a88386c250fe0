#pragma once

#include <cstddef>

namespace velmora {

// Makes sure the process may open enough descriptors for `connections` at once besides its
// own: a soft limit below that is raised as far as the hard limit allows, with a log line.
void ensureDescriptorsFor(std::size_t connections);

// Descriptors kept aside for everything that is not a connection (sound server, log, journal,
// netlink queries, the tray).
inline constexpr std::size_t descriptorsBesideConnections = 128;

}  // namespace velmora
