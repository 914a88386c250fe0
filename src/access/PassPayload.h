#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// What a start pass asserts: the page origin it was issued for, when, and a single-use nonce.
// On the wire it is the JSON object {"v":1,"origin":...,"iat":...,"nonce":...}.
struct PassPayload {
    std::string origin;
    double iat = 0;  // issue time, seconds since 1970 UTC
    std::string nonce;

    // The payload of JSON text, or nothing unless it is an object with "v" 1, a string
    // "origin", a number "iat" and a non-empty string "nonce". Other members are ignored.
    // Numbers read as a JSON reader's numbers do: fractions of "v" are cut off, and true and
    // false count as 1 and 0.
    static std::optional<PassPayload> parse(std::string_view json);

    // The JSON text, members in the order above; a whole-second iat is written without fraction.
    std::string json() const;
};

}  // namespace velmora
