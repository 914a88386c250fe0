#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace velmora {

// The port a person typed into the port dialog: spaces and tabs around it are ignored, an
// optional "+" or "-" may lead, then decimal digits only. Absent when that does not parse or the
// number is outside 1024...65535.
std::optional<std::uint16_t> parsePortEntry(std::string_view entry);

inline constexpr std::int64_t lowestPortEntry = 1024;
inline constexpr std::int64_t highestPortEntry = 65535;

}  // namespace velmora
