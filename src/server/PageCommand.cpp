#include "server/PageCommand.h"

#include <nlohmann/json.hpp>

namespace velmora {

PageCommand PageCommand::parse(std::string_view text) {
    PageCommand command;
    // The JSON reader takes a NUL for the end of the text; JSON allows none anywhere.
    if (text.find('\0') != std::string_view::npos) return command;
    auto message = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
    if (!message.is_object()) return command;  // also a parse failure (discarded value)
    auto type = message.find("type");
    if (type == message.end() || !type->is_string()) return command;
    command.type = type->get<std::string>();
    if (command.type == "ping") {
        command.kind = Kind::ping;
    } else if (command.type == "start") {
        command.kind = Kind::start;
        auto pass = message.find("pass");
        if (pass != message.end() && pass->is_string()) command.pass = pass->get<std::string>();
    } else if (command.type == "stop") {
        command.kind = Kind::stop;
    } else {
        command.kind = Kind::unknownType;
    }
    return command;
}

}  // namespace velmora
