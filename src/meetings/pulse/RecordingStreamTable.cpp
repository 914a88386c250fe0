#include "meetings/pulse/RecordingStreamTable.h"

#include <utility>

namespace velmora {
namespace {

// The stream's own properties, completed from its client's where the server keeps them there
// (PipeWire's pulse server, for one, puts the Flatpak id on the client only).
ApplicationIdentity merged(ApplicationIdentity stream, const ApplicationIdentity& client) {
    auto fill = [](std::string& field, const std::string& fallback) {
        if (field.empty()) {
            field = fallback;
        }
    };
    fill(stream.flatpakId, client.flatpakId);
    fill(stream.snapId, client.snapId);
    fill(stream.applicationId, client.applicationId);
    fill(stream.binary, client.binary);
    fill(stream.name, client.name);
    fill(stream.iconName, client.iconName);
    return stream;
}

}  // namespace

void RecordingStreamTable::putStream(std::uint32_t index, Stream stream) {
    streams_[index] = std::move(stream);
}

void RecordingStreamTable::removeStream(std::uint32_t index) {
    streams_.erase(index);
}

void RecordingStreamTable::putSource(std::uint32_t index, bool isMonitor) {
    sourceIsMonitor_[index] = isMonitor;
}

void RecordingStreamTable::removeSource(std::uint32_t index) {
    sourceIsMonitor_.erase(index);
}

void RecordingStreamTable::putClient(std::uint32_t index, ApplicationIdentity identity) {
    clients_[index] = std::move(identity);
}

void RecordingStreamTable::removeClient(std::uint32_t index) {
    clients_.erase(index);
}

void RecordingStreamTable::clear() {
    streams_.clear();
    sourceIsMonitor_.clear();
    clients_.clear();
}

std::vector<std::string> RecordingStreamTable::bundleIds() const {
    std::vector<std::string> identifiers;
    for (const auto& [index, stream] : streams_) {
        const auto source = sourceIsMonitor_.find(stream.source);
        // A source not listed (yet, or any more) is skipped too.
        if (stream.corked || stream.levelMeter || source == sourceIsMonitor_.end() ||
            source->second) {
            continue;
        }
        ApplicationIdentity identity = stream.identity;
        if (const auto client = clients_.find(stream.client); client != clients_.end()) {
            identity = merged(std::move(identity), client->second);
        }
        if (auto identifier = identity.identifier()) {
            identifiers.push_back(std::move(*identifier));
        }
    }
    return identifiers;
}

}  // namespace velmora
