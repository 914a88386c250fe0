#include "access/Base64.h"

#include <openssl/evp.h>

#include <algorithm>

namespace velmora::Base64 {
namespace {

bool isAlphabet(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

}  // namespace

std::string encode(std::string_view bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3), '\0');
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                        reinterpret_cast<const unsigned char*>(bytes.data()),
                                        static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(written));
    return text;
}

std::string encodeUrl(std::string_view bytes) {
    std::string text = encode(bytes);
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    text.erase(text.find_last_not_of('=') + 1);
    return text;
}

std::optional<std::string> decode(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    // OpenSSL's decoder forgives surrounding white space and misplaced padding; a pass must not.
    const std::size_t padding = text.size() - (text.find_last_not_of('=') + 1);
    if (padding > 2 ||
        !std::all_of(text.begin(), text.end() - static_cast<std::ptrdiff_t>(padding), isAlphabet)) {
        return std::nullopt;
    }
    std::string bytes(text.size() / 4 * 3, '\0');
    const int written = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                        reinterpret_cast<const unsigned char*>(text.data()),
                                        static_cast<int>(text.size()));
    if (written < 0 || static_cast<std::size_t>(written) != bytes.size()) {
        return std::nullopt;
    }
    bytes.resize(bytes.size() - padding);
    return bytes;
}

}  // namespace velmora::Base64
