#include "access/OriginPolicy.h"

#include <boost/url/parse.hpp>

#include "access/OriginText.h"

namespace velmora::OriginPolicy {
namespace {

constexpr std::string_view anyPortSuffix = ":*";

bool isAnyPortPattern(std::string_view pattern) {
    return pattern.ends_with(anyPortSuffix);
}

std::string_view withoutAnyPortSuffix(std::string_view pattern) {
    return pattern.substr(0, pattern.size() - anyPortSuffix.size());
}

}  // namespace

std::optional<std::string> normalizePattern(std::string_view entry) {
    const std::string lowered =
        OriginText::lowercased(OriginText::trimWhitespaceAndNewlines(entry));
    const std::string_view pattern = OriginText::withoutTrailingSlashes(lowered);
    if (pattern.empty()) {
        return std::nullopt;
    }
    if (!pattern.starts_with("https://") && !pattern.starts_with("http://")) {
        return std::nullopt;
    }
    const auto url =
        boost::urls::parse_uri(isAnyPortPattern(pattern) ? withoutAnyPortSuffix(pattern) : pattern);
    if (!url) {
        return std::nullopt;
    }
    if (!url->has_authority() || url->host().empty() || !url->encoded_path().empty() ||
        url->has_query() || url->has_fragment() || url->has_userinfo()) {
        return std::nullopt;
    }
    // The only wildcard is a whole port; a partial host wildcard would be too easy to abuse.
    if (url->host().find('*') != std::string::npos) {
        return std::nullopt;
    }
    return std::string(pattern);
}

bool isAllowed(const std::optional<std::string>& origin, const std::vector<std::string>& patterns) {
    if (!origin) {
        return false;
    }
    const std::string lowered = OriginText::lowercased(OriginText::trimWhitespace(*origin));
    // Browsers send "null" for sandboxed frames and local files: never one of ours.
    if (lowered.empty() || lowered == "null") {
        return false;
    }
    const std::string_view normalized = OriginText::withoutTrailingSlashes(lowered);
    const auto url = boost::urls::parse_uri_reference(normalized);
    if (!url) {
        return false;
    }
    if (!url->has_scheme() || !url->has_authority() || !url->encoded_path().empty() ||
        url->has_userinfo() || url->has_query()) {
        return false;
    }
    const std::string hostKey = std::string(url->scheme()) + "://" + url->host();
    for (const std::string& pattern : patterns) {
        if (isAnyPortPattern(pattern) ? withoutAnyPortSuffix(pattern) == hostKey
                                      : pattern == normalized) {
            return true;
        }
    }
    return false;
}

}  // namespace velmora::OriginPolicy
