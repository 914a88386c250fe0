#include "server/ServerStart.h"

#include <condition_variable>
#include <memory>
#include <mutex>

namespace velmora::testing {

bool startAndWaitUntilListening(HelperServer& server, std::chrono::milliseconds patience) {
    // Shared with the handler, which stays set after this returns.
    struct Listening {
        std::mutex mutex;
        std::condition_variable changed;
        bool listening = false;
    };
    auto state = std::make_shared<Listening>();
    server.setOnStatus([state](const HelperStatus& status) {
        {
            std::lock_guard lock(state->mutex);
            state->listening = status.server == ServerState::listening();
        }
        state->changed.notify_all();
    });
    server.start();
    std::unique_lock lock(state->mutex);
    return state->changed.wait_for(lock, patience, [&] { return state->listening; });
}

}  // namespace velmora::testing
