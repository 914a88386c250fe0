#include "app/TrayAppearance.h"

#include <boost/url/parse.hpp>

namespace velmora {
namespace {

// The host of an origin read as a URL; a page whose origin has none is named after the product.
std::string hostOf(const std::string& origin) {
    auto url = boost::urls::parse_uri(origin);
    if (!url || !url->has_authority()) return "Velmora";
    std::string host = url->host_address();
    return host.empty() ? "Velmora" : host;
}

std::string statusTextOf(const HelperStatus& status, std::uint16_t port) {
    switch (status.server.kind()) {
        case ServerState::Kind::stopped:
            return "Starting\u2026";
        case ServerState::Kind::failed:
            return status.server.message();
        case ServerState::Kind::listening:
            break;
    }
    if (status.capturingFor) {
        return "\u25CF Sending system audio to " + hostOf(*status.capturingFor);
    }
    if (status.clients < 1) {
        return "Ready \u00B7 waiting for Velmora (port " + std::to_string(port) + ")";
    }
    return "Connected \u00B7 ready to capture";
}

}  // namespace

TrayAppearance render(const HelperStatus& status, std::uint16_t port) {
    TrayAppearance appearance;
    appearance.statusText = statusTextOf(status, port);
    // A denied permission or a capture failure matters more than the listener's state, but
    // only while nothing streams: a running capture proves both were overcome.
    if (!status.capturingFor) {
        if (status.permissionDenied) {
            appearance.statusText = "System audio access was denied";
        } else if (status.lastError) {
            appearance.statusText = *status.lastError;
        }
    }
    appearance.permissionItemVisible = status.permissionDenied;
    if (status.capturingFor) {
        appearance.iconName = TrayIcons::sending;
    } else if (status.server.kind() == ServerState::Kind::failed || status.permissionDenied) {
        appearance.iconName = TrayIcons::warning;
    } else {
        appearance.iconName = TrayIcons::idle;
    }
    appearance.toolTip = std::string(trayName) + " \u2014 " + appearance.statusText;
    return appearance;
}

}  // namespace velmora
