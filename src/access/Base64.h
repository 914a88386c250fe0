#pragma once

#include <optional>
#include <string>
#include <string_view>

// Base64 as start passes and pass keys use it. Byte strings travel as std::string.
namespace velmora::Base64 {

// Standard alphabet with "=" padding.
std::string encode(std::string_view bytes);

// URL-safe alphabet ("-", "_") without padding, as pass parts are written.
std::string encodeUrl(std::string_view bytes);

// Decodes standard base64 with its padding, strictly: a length that is not a multiple of four,
// white space or any character outside the alphabet gives nothing.
std::optional<std::string> decode(std::string_view text);

}  // namespace velmora::Base64
