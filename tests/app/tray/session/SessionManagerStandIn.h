#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace velmora::testing {

// An X session manager of the test's own (the XSMP protocol through libSM, as a desktop's
// session manager speaks it): clients connect through SESSION_MANAGER, register, and are asked
// to save their state; what they answer about being restarted is kept.
class SessionManagerStandIn {
  public:
    SessionManagerStandIn();
    ~SessionManagerStandIn();
    SessionManagerStandIn(const SessionManagerStandIn&) = delete;
    SessionManagerStandIn& operator=(const SessionManagerStandIn&) = delete;

    // The SESSION_MANAGER value that reaches this manager.
    const std::string& address() const { return address_; }

    // Handles the protocol for up to `patience` or until `done` says so.
    template <typename Done>
    bool runUntil(Done done, std::chrono::milliseconds patience) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            turn(std::chrono::milliseconds(50));
        }
        return true;
    }

    int registeredClients() const { return registered_; }
    int finishedSaves() const { return savesDone_; }
    // The RestartStyleHint the clients set (0 if running, 1 anyway, 2 immediately, 3 never).
    const std::vector<int>& restartHints() const { return restartHints_; }

    // Callbacks of libSM; public only for them.
    void registered() { ++registered_; }
    void propertiesSet(int hint) { restartHints_.push_back(hint); }
    void saveDone() { ++savesDone_; }

  private:
    void turn(std::chrono::milliseconds slice);

    std::string address_;
    int listenerCount_ = 0;
    void* listeners_ = nullptr;
    std::vector<void*> connections_;
    int registered_ = 0;
    int savesDone_ = 0;
    std::vector<int> restartHints_;
};

}  // namespace velmora::testing
