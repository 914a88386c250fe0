#include "access/PassPayload.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace velmora {
namespace {

constexpr int formatVersion = 1;

// A member's value as a number, if a JSON reader would give it one.
std::optional<double> numberValue(const nlohmann::json& value) {
    if (value.is_boolean()) {
        return value.get<bool>() ? 1.0 : 0.0;
    }
    if (value.is_number()) {
        return value.get<double>();
    }
    return std::nullopt;
}

bool isFormatVersion(const nlohmann::json& value) {
    if (value.is_number_integer()) {
        // Compared as an integer: a huge one must not round to the version.
        return value.is_number_unsigned() ? value.get<std::uint64_t>() == formatVersion
                                          : value.get<std::int64_t>() == formatVersion;
    }
    const auto number = numberValue(value);
    return number && std::trunc(*number) == formatVersion;
}

const nlohmann::json* member(const nlohmann::json& object, const char* key) {
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

}  // namespace

std::optional<PassPayload> PassPayload::parse(std::string_view json) {
    const auto object = nlohmann::json::parse(json, nullptr, /*allow_exceptions=*/false);
    if (!object.is_object()) {
        return std::nullopt;
    }
    const auto* version = member(object, "v");
    if (!version || !isFormatVersion(*version)) {
        return std::nullopt;
    }
    const auto* origin = member(object, "origin");
    if (!origin || !origin->is_string()) {
        return std::nullopt;
    }
    const auto* iat = member(object, "iat");
    const auto iatValue = iat ? numberValue(*iat) : std::nullopt;
    if (!iatValue) {
        return std::nullopt;
    }
    const auto* nonce = member(object, "nonce");
    if (!nonce || !nonce->is_string() || nonce->get_ref<const std::string&>().empty()) {
        return std::nullopt;
    }
    return PassPayload{
        .origin = origin->get<std::string>(), .iat = *iatValue, .nonce = nonce->get<std::string>()};
}

std::string PassPayload::json() const {
    nlohmann::ordered_json object;
    object["v"] = formatVersion;
    object["origin"] = origin;
    constexpr double largestExactInteger = 9007199254740992.0;  // 2^53
    if (std::trunc(iat) == iat && std::fabs(iat) < largestExactInteger) {
        object["iat"] = static_cast<std::int64_t>(iat);
    } else {
        object["iat"] = iat;
    }
    object["nonce"] = nonce;
    return object.dump();
}

}  // namespace velmora
