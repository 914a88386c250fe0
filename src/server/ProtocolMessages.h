#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "meetings/MeetingApp.h"

namespace velmora::ProtocolMessages {

// Server-to-page JSON messages. Integers stay integers, so they serialise without a fraction.
nlohmann::json hello(const std::optional<std::string>& product);
nlohmann::json pong();
nlohmann::json started();
nlohmann::json stopped();
nlohmann::json takenOver();  // "stopped" with reason "taken_over"
nlohmann::json error(std::string_view code, std::string_view message);
nlohmann::json callEnded(const MeetingApp& app);

// The compact text of a message, or nothing when it cannot be serialised (invalid UTF-8).
std::optional<std::string> serialize(const nlohmann::json& message);

// The user-facing error texts; appName is AudioKit's.
inline constexpr std::string_view malformedRequestText = "Expected a JSON message with a type";
std::string unknownTypeText(std::string_view type);
std::string passRequiredText(std::string_view appName);
std::string passInvalidText(std::string_view appName);
std::string permissionTimeoutText(std::string_view appName);

}  // namespace velmora::ProtocolMessages
