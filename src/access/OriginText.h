#pragma once

#include <string>
#include <string_view>

// Text clean-up shared by the origin policy and the pass check, so that both read an origin the
// same way a browser-facing user would expect.
namespace velmora::OriginText {

// Without leading and trailing white space (tab and the Unicode space separators), keeping
// line breaks: an origin header with a stray newline is malformed, not something to repair.
std::string_view trimWhitespace(std::string_view text);

// Without leading and trailing white space and line breaks: for entries a person typed or pasted.
std::string_view trimWhitespaceAndNewlines(std::string_view text);

// ASCII lower case. Origins that can match are ASCII (browsers send hosts in punycode).
std::string lowercased(std::string_view text);

// Without any run of trailing "/" characters.
std::string_view withoutTrailingSlashes(std::string_view text);

}  // namespace velmora::OriginText
