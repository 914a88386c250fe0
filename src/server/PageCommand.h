#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// One command from a page, read from one text message. Pure: no state, no sockets, so any text
// can be fed to it.
struct PageCommand {
    enum class Kind {
        ping,
        start,
        stop,
        unknownType,  // a string "type" that names no command (compared case-sensitively)
        malformed,    // not JSON, not an object, or no string "type"
    };

    Kind kind = Kind::malformed;
    // The "type" value as sent (set for every kind but malformed).
    std::string type;
    // For start: the "pass" member when it is present and text.
    std::optional<std::string> pass;

    static PageCommand parse(std::string_view text);
};

}  // namespace velmora
