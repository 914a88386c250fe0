#pragma once

#include <ostream>
#include <string>

namespace velmora {

// The listener's state as the menu shows it.
class ServerState {
  public:
    enum class Kind {
        failed,     // the listener could not be created or failed; message() says so in words
        stopped,    // not listening (initially, and after the listener was cancelled)
        listening,  // ready for pages
    };

    static ServerState failed(std::string message) {
        return ServerState(Kind::failed, std::move(message));
    }
    static ServerState stopped() { return ServerState(Kind::stopped, {}); }
    static ServerState listening() { return ServerState(Kind::listening, {}); }

    Kind kind() const { return kind_; }
    // The failure text of a failed state; empty otherwise.
    const std::string& message() const { return message_; }

    bool operator==(const ServerState&) const = default;

  private:
    ServerState(Kind kind, std::string message) : kind_(kind), message_(std::move(message)) {}

    Kind kind_;
    std::string message_;
};

// "failed(<message>)", "stopped" or "listening", for logs and test failure messages.
std::ostream& operator<<(std::ostream& stream, const ServerState& state);

}  // namespace velmora
