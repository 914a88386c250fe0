#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace velmora {

// Sums several live streams of interleaved float samples (one format for all) into one.
//
// The streams come from different clocks and arrive in fragments of their own sizes, so there is
// no common tick to mix on. Instead one stream leads: each of its fragments goes out at once,
// with as much of every other stream as that one holds (up to the fragment's length) added in.
// The others wait in small rings meanwhile. A stream that has buffered more than
// `takeoverFrames` while waiting shows that the leader has stalled (corked, moved, ended, or a
// slower clock), and it takes the lead, flushing what it holds. A stream that delivers nothing
// thus contributes silence and never holds the output up.
//
// Rings are allocated when a stream is added; writing and mixing allocate nothing. Not
// thread-safe: one thread (the capture queue) calls everything.
class StreamMixer {
  public:
    using StreamId = std::uint32_t;
    // Receives `frames` frames of mixed interleaved samples; the data is valid during the call.
    using Output = std::function<void(const float* samples, std::size_t frames)>;

    StreamMixer(std::size_t channels, std::size_t ringFrames, std::size_t takeoverFrames,
                Output output);

    StreamMixer(const StreamMixer&) = delete;
    StreamMixer& operator=(const StreamMixer&) = delete;

    // Adding a stream that exists already keeps it as it is.
    void add(StreamId id);
    // Whatever the stream still held is dropped.
    void remove(StreamId id);
    bool contains(StreamId id) const;
    std::size_t streamCount() const { return streams_.size(); }

    // `frames` frames of interleaved samples from stream `id`; null samples read as silence.
    // Unknown streams are ignored.
    void write(StreamId id, const float* samples, std::size_t frames);

    // For inspection.
    bool isLeading(StreamId id) const { return hasLeader_ && leader_ == id; }
    std::size_t bufferedFrames(StreamId id) const;

  private:
    struct Stream {
        StreamId id = 0;
        std::unique_ptr<float[]> ring;  // ringFrames frames
        std::size_t head = 0;           // first buffered frame
        std::size_t size = 0;           // buffered frames
    };

    Stream* find(StreamId id);
    const Stream* find(StreamId id) const;
    void push(Stream& stream, const float* samples, std::size_t frames);
    // Moves `frames` buffered frames of `stream` into the mix, adding when `add` is set.
    void take(Stream& stream, std::size_t frames, bool add);
    void lead(Stream& stream);

    const std::size_t channels_;
    const std::size_t ringFrames_;
    const std::size_t takeoverFrames_;
    Output output_;
    std::vector<Stream> streams_;
    // ringFrames frames; left unwritten until used, so only what the largest fragment needs is
    // ever resident.
    std::unique_ptr<float[]> mix_;
    bool hasLeader_ = false;
    StreamId leader_ = 0;
};

}  // namespace velmora
