#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "meetings/pulse/RecordingStreamTable.h"

struct pa_context;
struct pa_threaded_mainloop;
struct pa_time_event;

namespace velmora {

// One connection to the sound server that keeps a RecordingStreamTable current from the
// server's events (recording streams, sources and clients appearing, changing and going), on a
// libpulse loop thread of its own. Reading the answer takes one short lock and never waits on
// the server: a server that hangs or goes away simply leaves no answer, and a server that comes
// back is connected to again.
//
// Everything libpulse touches lives on the loop thread. The callbacks point at this object
// directly: the destructor stops the loop, and with it every callback, before any member goes.
class RecordingStreamView {
  public:
    struct Options {
        // The server, as for PULSE_SERVER; empty for the user's default server.
        std::string serverAddress;
        // A request the server leaves unanswered longer than this makes the view count as lost.
        std::chrono::milliseconds timeout{500};
        // How often the server is asked whether it still answers, and how often a server that
        // went away is tried again.
        std::chrono::milliseconds checkInterval{1000};
    };

    struct Answer {
        std::vector<std::string> bundleIds;  // as RecordingStreamTable::bundleIds
        std::int64_t streamCount = 0;        // every recording stream listed
    };

    // Starts connecting and returns at once.
    explicit RecordingStreamView(Options options);
    // Closes the connection and stops the loop thread.
    ~RecordingStreamView();
    RecordingStreamView(const RecordingStreamView&) = delete;
    RecordingStreamView& operator=(const RecordingStreamView&) = delete;

    // The view now; nothing while the server is not connected, has not listed everything yet,
    // or has left a request unanswered for longer than the timeout.
    std::optional<Answer> current() const;

  private:
    friend struct RecordingStreamViewEvents;

    // Loop thread only.
    void check();
    void connect();
    void contextChanged();
    void listingDone(int eol);
    void serverAnswered();
    void publish();
    void releaseContext();
    // Drops everything learned, until the connection is complete again.
    void forget();

    const Options options_;
    pa_threaded_mainloop* loop_ = nullptr;
    pa_time_event* checkTimer_ = nullptr;

    // Loop thread only.
    pa_context* context_ = nullptr;
    RecordingStreamTable table_;
    int listingsUnderWay_ = 0;
    bool reconnectWanted_ = false;

    // Shared with readers.
    mutable std::mutex mutex_;
    bool complete_ = false;  // connected and every listing answered
    std::optional<std::chrono::steady_clock::time_point> askedSince_;  // an unanswered request
    Answer answer_;
};

}  // namespace velmora
