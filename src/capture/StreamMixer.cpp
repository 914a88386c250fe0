#include "capture/StreamMixer.h"

#include <algorithm>
#include <stdexcept>

namespace velmora {

StreamMixer::StreamMixer(std::size_t channels, std::size_t ringFrames, std::size_t takeoverFrames,
                         Output output)
    : channels_(channels),
      ringFrames_(ringFrames),
      takeoverFrames_(takeoverFrames),
      output_(std::move(output)),
      mix_(std::make_unique_for_overwrite<float[]>(ringFrames * channels)) {
    if (channels == 0 || ringFrames == 0 || takeoverFrames == 0 || takeoverFrames > ringFrames) {
        throw std::invalid_argument(
            "StreamMixer: channels, ring and takeover must be positive, "
            "and the takeover no larger than the ring");
    }
}

void StreamMixer::add(StreamId id) {
    if (find(id) != nullptr) return;
    Stream stream;
    stream.id = id;
    stream.ring = std::make_unique_for_overwrite<float[]>(ringFrames_ * channels_);
    streams_.push_back(std::move(stream));
}

void StreamMixer::remove(StreamId id) {
    std::erase_if(streams_, [id](const Stream& stream) { return stream.id == id; });
    if (hasLeader_ && leader_ == id) hasLeader_ = false;
}

bool StreamMixer::contains(StreamId id) const {
    return find(id) != nullptr;
}

std::size_t StreamMixer::bufferedFrames(StreamId id) const {
    const Stream* stream = find(id);
    return stream != nullptr ? stream->size : 0;
}

StreamMixer::Stream* StreamMixer::find(StreamId id) {
    for (auto& stream : streams_) {
        if (stream.id == id) return &stream;
    }
    return nullptr;
}

const StreamMixer::Stream* StreamMixer::find(StreamId id) const {
    for (const auto& stream : streams_) {
        if (stream.id == id) return &stream;
    }
    return nullptr;
}

void StreamMixer::write(StreamId id, const float* samples, std::size_t frames) {
    Stream* stream = find(id);
    if (stream == nullptr || frames == 0) return;
    // A fragment larger than the ring goes out in ring-sized pieces, each led by this stream.
    while (frames > 0) {
        const std::size_t piece = std::min(frames, ringFrames_);
        push(*stream, samples, piece);
        if (samples != nullptr) samples += piece * channels_;
        frames -= piece;
        const bool leads = !hasLeader_ || leader_ == id || stream->size >= takeoverFrames_;
        if (leads || frames > 0) lead(*stream);
    }
}

void StreamMixer::push(Stream& stream, const float* samples, std::size_t frames) {
    // A full ring loses its oldest frames; only a stream far ahead of the leader gets there, and
    // it takes the lead long before.
    if (stream.size + frames > ringFrames_) {
        const std::size_t dropped = stream.size + frames - ringFrames_;
        stream.head = (stream.head + dropped) % ringFrames_;
        stream.size -= dropped;
    }
    std::size_t tail = (stream.head + stream.size) % ringFrames_;
    std::size_t left = frames;
    while (left > 0) {
        const std::size_t run = std::min(left, ringFrames_ - tail);
        float* to = stream.ring.get() + tail * channels_;
        if (samples != nullptr) {
            std::copy_n(samples, run * channels_, to);
            samples += run * channels_;
        } else {
            std::fill_n(to, run * channels_, 0.0f);
        }
        tail = (tail + run) % ringFrames_;
        left -= run;
    }
    stream.size += frames;
}

void StreamMixer::take(Stream& stream, std::size_t frames, bool add) {
    float* to = mix_.get();
    std::size_t left = frames;
    while (left > 0) {
        const std::size_t run = std::min(left, ringFrames_ - stream.head);
        const float* from = stream.ring.get() + stream.head * channels_;
        const std::size_t count = run * channels_;
        if (add) {
            for (std::size_t index = 0; index < count; ++index) to[index] += from[index];
        } else {
            std::copy_n(from, count, to);
        }
        to += count;
        stream.head = (stream.head + run) % ringFrames_;
        left -= run;
    }
    stream.size -= frames;
}

void StreamMixer::lead(Stream& stream) {
    hasLeader_ = true;
    leader_ = stream.id;
    const std::size_t frames = stream.size;
    if (frames == 0) return;
    take(stream, frames, false);
    for (auto& other : streams_) {
        if (&other == &stream || other.size == 0) continue;
        take(other, std::min(frames, other.size), true);
    }
    if (output_) output_(mix_.get(), frames);
}

}  // namespace velmora
