#pragma once

#include <map>
#include <string>

struct pa_context;
struct pa_stream;
struct pa_threaded_mainloop;

namespace velmora {

// A recording stream opened with libpulse directly, for the kinds parec cannot open: one that
// starts corked (paused) and a level meter. It records until destroyed.
class RecordingStream {
  public:
    struct Options {
        std::string serverAddress;
        std::string source;
        std::map<std::string, std::string> properties = {};        // the client's properties
        std::map<std::string, std::string> streamProperties = {};  // the stream's own
        bool corked = false;
        bool levelMeter = false;  // peak detection at 25 Hz, as a volume control's meter does
    };

    // Throws std::runtime_error when the stream is not recording (or paused) within 10 s.
    explicit RecordingStream(const Options& options);
    ~RecordingStream();
    RecordingStream(const RecordingStream&) = delete;
    RecordingStream& operator=(const RecordingStream&) = delete;

    // Pauses (corks) or resumes the stream, as an application muting its microphone does; the
    // server has applied it when this returns. Throws std::runtime_error when it has not in 10 s.
    void setCorked(bool corked);

  private:
    void close();

    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* context_ = nullptr;
    pa_stream* stream_ = nullptr;
};

}  // namespace velmora
