#include "access/OriginText.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <span>

namespace velmora::OriginText {
namespace {

// Tab and every Unicode space separator, UTF-8 encoded.
constexpr std::array<std::string_view, 18> whitespace = {
    "\t",           " ",
    "\xC2\xA0",     "\xE1\x9A\x80",
    "\xE2\x80\x80", "\xE2\x80\x81",
    "\xE2\x80\x82", "\xE2\x80\x83",
    "\xE2\x80\x84", "\xE2\x80\x85",
    "\xE2\x80\x86", "\xE2\x80\x87",
    "\xE2\x80\x88", "\xE2\x80\x89",
    "\xE2\x80\x8A", "\xE2\x80\xAF",
    "\xE2\x81\x9F", "\xE3\x80\x80",
};

// Line feed, vertical tab, form feed, carriage return, next line, and the line and paragraph
// separators.
constexpr std::array<std::string_view, 7> newlines = {
    "\n", "\v", "\f", "\r", "\xC2\x85", "\xE2\x80\xA8", "\xE2\x80\xA9",
};

// Removes, from both ends, every character of the given sets.
std::string_view trim(std::string_view text,
                      std::initializer_list<std::span<const std::string_view>> sets) {
    const auto matchingLength = [&](auto&& matches) -> std::size_t {
        for (auto characters : sets) {
            for (std::string_view c : characters) {
                if (matches(c)) return c.size();
            }
        }
        return 0;
    };
    while (auto length = matchingLength([&](std::string_view c) { return text.starts_with(c); })) {
        text.remove_prefix(length);
    }
    while (auto length = matchingLength([&](std::string_view c) { return text.ends_with(c); })) {
        text.remove_suffix(length);
    }
    return text;
}

}  // namespace

std::string_view trimWhitespace(std::string_view text) {
    return trim(text, {whitespace});
}

std::string_view trimWhitespaceAndNewlines(std::string_view text) {
    return trim(text, {whitespace, newlines});
}
std::string lowercased(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](unsigned char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : static_cast<char>(c);
    });
    return result;
}

std::string_view withoutTrailingSlashes(std::string_view text) {
    while (text.ends_with('/')) {
        text.remove_suffix(1);
    }
    return text;
}

}  // namespace velmora::OriginText
