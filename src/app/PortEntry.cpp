#include "app/PortEntry.h"

namespace velmora {

std::optional<std::uint16_t> parsePortEntry(std::string_view entry) {
    auto isBlank = [](char character) { return character == ' ' || character == '\t'; };
    while (!entry.empty() && isBlank(entry.front())) entry.remove_prefix(1);
    while (!entry.empty() && isBlank(entry.back())) entry.remove_suffix(1);

    bool negative = false;
    if (!entry.empty() && (entry.front() == '+' || entry.front() == '-')) {
        negative = entry.front() == '-';
        entry.remove_prefix(1);
    }
    if (entry.empty()) return std::nullopt;

    std::int64_t value = 0;
    for (char character : entry) {
        if (character < '0' || character > '9') return std::nullopt;
        value = value * 10 + (character - '0');
        // Anything this long is out of range already; stop before the number can overflow.
        if (value > highestPortEntry) return std::nullopt;
    }
    if (negative) value = -value;
    if (value < lowestPortEntry || value > highestPortEntry) return std::nullopt;
    return static_cast<std::uint16_t>(value);
}

}  // namespace velmora
