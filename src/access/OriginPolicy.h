#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::OriginPolicy {

// The canonical stored form of a user-typed allowed-origin entry, or nothing when unacceptable.
std::optional<std::string> normalizePattern(std::string_view entry);

// Whether a page's origin matches at least one canonical pattern.
bool isAllowed(const std::optional<std::string>& origin, const std::vector<std::string>& patterns);

}  // namespace velmora::OriginPolicy
