#pragma once

#include <cstdint>
#include <string_view>

namespace velmora {

// Whether an upgrade request's Host header names this helper: 127.0.0.1, localhost or [::1]
// with the port it listens on. A page whose name was made to resolve to 127.0.0.1 sends its own
// name here, so the check is a second defence against DNS rebinding beside the origin rule.
bool isOwnHost(std::string_view host, std::uint16_t port);

}  // namespace velmora
