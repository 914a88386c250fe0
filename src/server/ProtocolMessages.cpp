#include "server/ProtocolMessages.h"

#include "config/HelperInfo.h"
#include "config/PlatformTexts.h"

namespace velmora::ProtocolMessages {

nlohmann::json hello(const std::optional<std::string>& product) {
    nlohmann::json message = {
        {"type", "hello"},
        {"app", HelperInfo::appId},
        {"version", HelperInfo::version()},
        {"platform", PlatformTexts::current().platform},
        {"sampleRate", HelperInfo::sampleRate},
        {"channels", 1},
        {"format", "f32le"},
    };
    if (product) message["product"] = *product;
    return message;
}

nlohmann::json pong() {
    return {{"type", "pong"}};
}

nlohmann::json started() {
    return {{"type", "started"}};
}

nlohmann::json stopped() {
    return {{"type", "stopped"}};
}

nlohmann::json takenOver() {
    return {{"type", "stopped"}, {"reason", "taken_over"}};
}

nlohmann::json error(std::string_view code, std::string_view message) {
    return {{"type", "error"}, {"code", code}, {"message", message}};
}

nlohmann::json callEnded(const MeetingApp& app) {
    return {{"type", "call_ended"}, {"app", app.key}, {"name", app.name}, {"id", app.bundleId}};
}

std::optional<std::string> serialize(const nlohmann::json& message) {
    try {
        return message.dump();
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

std::string unknownTypeText(std::string_view type) {
    return "Unknown message type " + std::string(type);
}

std::string passRequiredText(std::string_view appName) {
    return "This page needs updating to use " + std::string(appName) +
           ". Reload Velmora and try again.";
}

std::string passInvalidText(std::string_view appName) {
    return std::string(appName) +
           " couldn't confirm this Velmora page. Check that your computer's clock is right, then "
           "reload Velmora and try again.";
}

std::string permissionTimeoutText(std::string_view appName) {
    return PlatformTexts::current().permissionTimeout(appName);
}

}  // namespace velmora::ProtocolMessages
