#include "meetings/pulse/PulseMicrophoneUsers.h"

#include <pulse/pulseaudio.h>

#include <functional>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "config/HelperInfo.h"
#include "meetings/pulse/ApplicationIdentity.h"

namespace velmora {
namespace {

using Clock = std::chrono::steady_clock;

std::string property(const pa_proplist* properties, const char* key) {
    const char* value = properties ? pa_proplist_gets(properties, key) : nullptr;
    return value ? std::string(value) : std::string();
}

ApplicationIdentity identityOf(const pa_proplist* properties) {
    return ApplicationIdentity{
        .flatpakId = property(properties, ApplicationIdentity::flatpakIdProperty),
        .applicationId = property(properties, ApplicationIdentity::applicationIdProperty),
        .binary = property(properties, ApplicationIdentity::binaryProperty),
        .name = property(properties, ApplicationIdentity::nameProperty),
    };
}

// The stream's own properties, completed from its client's where the server keeps them there
// (PipeWire's pulse server, for one, puts the Flatpak id on the client only).
ApplicationIdentity merged(ApplicationIdentity stream, const ApplicationIdentity& client) {
    auto fill = [](std::string& field, const std::string& fallback) {
        if (field.empty()) {
            field = fallback;
        }
    };
    fill(stream.flatpakId, client.flatpakId);
    fill(stream.applicationId, client.applicationId);
    fill(stream.binary, client.binary);
    fill(stream.name, client.name);
    return stream;
}

// Level meters (a volume control's peak display) are not microphone use. PipeWire marks them
// with stream.monitor; PulseAudio serves them with the "peaks" resampler.
bool isLevelMeter(const pa_source_output_info& info) {
    const std::string monitor = property(info.proplist, "stream.monitor");
    return monitor == "true" || monitor == "1" ||
           (info.resample_method && std::string_view(info.resample_method) == "peaks");
}

struct RecordingStream {
    std::uint32_t source;
    std::uint32_t client;
    bool corked;
    bool levelMeter;
    ApplicationIdentity identity;
};

struct Listing {
    bool finished = false;
    bool failed = false;

    // The end-of-list mark of a libpulse listing: 1 at the end, negative on failure.
    void end(int eol) {
        finished = true;
        failed = eol < 0;
    }
};

// What one query learned from the server.
struct Snapshot {
    Listing streamListing;
    Listing sourceListing;
    Listing clientListing;
    std::vector<RecordingStream> streams;
    std::map<std::uint32_t, bool> sourceIsMonitor;
    std::map<std::uint32_t, ApplicationIdentity> clients;
};

void onSourceOutput(pa_context*, const pa_source_output_info* info, int eol, void* userdata) {
    auto& snapshot = *static_cast<Snapshot*>(userdata);
    if (eol != 0 || info == nullptr) {
        snapshot.streamListing.end(eol != 0 ? eol : -1);
        return;
    }
    snapshot.streams.push_back(RecordingStream{info->source, info->client, info->corked != 0,
                                               isLevelMeter(*info), identityOf(info->proplist)});
}

void onSource(pa_context*, const pa_source_info* info, int eol, void* userdata) {
    auto& snapshot = *static_cast<Snapshot*>(userdata);
    if (eol != 0 || info == nullptr) {
        snapshot.sourceListing.end(eol != 0 ? eol : -1);
        return;
    }
    snapshot.sourceIsMonitor[info->index] = info->monitor_of_sink != PA_INVALID_INDEX;
}

void onClient(pa_context*, const pa_client_info* info, int eol, void* userdata) {
    auto& snapshot = *static_cast<Snapshot*>(userdata);
    if (eol != 0 || info == nullptr) {
        snapshot.clientListing.end(eol != 0 ? eol : -1);
        return;
    }
    snapshot.clients[info->index] = identityOf(info->proplist);
}

// One connection to the sound server, driven on the calling thread until a deadline, then
// closed. Nothing of it outlives the object: no thread, no pending callback.
class ServerConnection {
  public:
    ServerConnection(const std::string& address, Clock::time_point deadline)
        : deadline_(deadline), loop_(pa_mainloop_new()) {
        if (loop_ == nullptr) {
            return;
        }
        context_ = pa_context_new(pa_mainloop_get_api(loop_), HelperInfo::appId);
        if (context_ == nullptr) {
            return;
        }
        // Never start a server just to ask who records: no server means nobody does.
        connected_ =
            pa_context_connect(context_, address.empty() ? nullptr : address.c_str(),
                               PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0 &&
            runUntil([this] { return pa_context_get_state(context_) == PA_CONTEXT_READY; });
    }

    ~ServerConnection() {
        for (pa_operation* operation : operations_) {
            pa_operation_cancel(operation);
            pa_operation_unref(operation);
        }
        if (context_ != nullptr) {
            pa_context_disconnect(context_);
            pa_context_unref(context_);
        }
        if (loop_ != nullptr) {
            pa_mainloop_free(loop_);
        }
    }

    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;

    bool isConnected() const { return connected_; }
    pa_context* context() { return context_; }

    // Keeps a request until the connection closes; false when it could not be sent.
    bool track(pa_operation* operation) {
        if (operation == nullptr) {
            return false;
        }
        operations_.push_back(operation);
        return true;
    }

    // Runs the loop until `finished` holds. False when the connection fails or the deadline
    // passes first.
    bool runUntil(const std::function<bool()>& finished) {
        while (!finished()) {
            if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context_))) {
                return false;
            }
            const auto remaining =
                std::chrono::duration_cast<std::chrono::microseconds>(deadline_ - Clock::now());
            if (remaining.count() <= 0) {
                return false;
            }
            if (pa_mainloop_prepare(loop_, static_cast<int>(remaining.count())) < 0 ||
                pa_mainloop_poll(loop_) < 0 || pa_mainloop_dispatch(loop_) < 0) {
                return false;
            }
        }
        return true;
    }

  private:
    Clock::time_point deadline_;
    pa_mainloop* loop_ = nullptr;
    pa_context* context_ = nullptr;
    bool connected_ = false;
    std::vector<pa_operation*> operations_;
};

enum class Detail { streamsOnly, withSourcesAndClients };

std::optional<Snapshot> takeSnapshot(const PulseMicrophoneUsers::Options& options, Detail detail) {
    Snapshot snapshot;
    ServerConnection connection(options.serverAddress, Clock::now() + options.timeout);
    if (!connection.isConnected()) {
        return std::nullopt;
    }
    pa_context* context = connection.context();
    const bool withDetails = detail == Detail::withSourcesAndClients;
    // The listings travel together, so one round trip answers all of them.
    if (!connection.track(
            pa_context_get_source_output_info_list(context, onSourceOutput, &snapshot))) {
        return std::nullopt;
    }
    if (withDetails &&
        (!connection.track(pa_context_get_source_info_list(context, onSource, &snapshot)) ||
         !connection.track(pa_context_get_client_info_list(context, onClient, &snapshot)))) {
        return std::nullopt;
    }
    const bool answered = connection.runUntil([&] {
        return snapshot.streamListing.finished &&
               (!withDetails ||
                (snapshot.sourceListing.finished && snapshot.clientListing.finished));
    });
    if (!answered || snapshot.streamListing.failed || snapshot.sourceListing.failed ||
        snapshot.clientListing.failed) {
        return std::nullopt;
    }
    return snapshot;
}

}  // namespace

PulseMicrophoneUsers::PulseMicrophoneUsers() : PulseMicrophoneUsers(Options{}) {}

PulseMicrophoneUsers::PulseMicrophoneUsers(Options options) : options_(std::move(options)) {}

std::vector<std::string> PulseMicrophoneUsers::bundleIds() {
    std::vector<std::string> identifiers;
    const auto snapshot = takeSnapshot(options_, Detail::withSourcesAndClients);
    if (!snapshot) {
        return identifiers;
    }
    for (const RecordingStream& stream : snapshot->streams) {
        const auto source = snapshot->sourceIsMonitor.find(stream.source);
        // A source listed after the streams (just created) or already gone is skipped too.
        if (stream.corked || stream.levelMeter || source == snapshot->sourceIsMonitor.end() ||
            source->second) {
            continue;
        }
        ApplicationIdentity identity = stream.identity;
        if (const auto client = snapshot->clients.find(stream.client);
            client != snapshot->clients.end()) {
            identity = merged(std::move(identity), client->second);
        }
        if (auto identifier = identity.identifier()) {
            identifiers.push_back(std::move(*identifier));
        }
    }
    return identifiers;
}

std::int64_t PulseMicrophoneUsers::processObjectCount() {
    const auto snapshot = takeSnapshot(options_, Detail::streamsOnly);
    return snapshot ? static_cast<std::int64_t>(snapshot->streams.size()) : 0;
}

}  // namespace velmora
