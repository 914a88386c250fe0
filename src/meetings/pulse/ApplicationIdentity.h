#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// What a recording stream says about the application behind it, and the application identifier
// that the meeting app table understands.
struct ApplicationIdentity {
    // Property names, as the sound server lists them on a stream or its client.
    // PipeWire's pulse server sets the Flatpak id of a sandboxed client from the sandbox itself.
    static constexpr const char* flatpakIdProperty = "pipewire.access.portal.app_id";
    // A client that PipeWire admitted through a security context (newer Flatpak) carries the
    // sandbox's engine and the application id inside it.
    static constexpr const char* securityEngineProperty = "pipewire.sec.engine";
    static constexpr const char* securityAppIdProperty = "pipewire.sec.app-id";
    static constexpr const char* flatpakEngine = "org.flatpak";
    // PipeWire's pulse server built with snap support names a snap-confined client's snap.
    static constexpr const char* snapIdProperty = "pipewire.snap.id";
    static constexpr const char* applicationIdProperty = "application.id";
    static constexpr const char* binaryProperty = "application.process.binary";
    static constexpr const char* nameProperty = "application.name";
    static constexpr const char* iconNameProperty = "application.icon_name";

    std::string flatpakId = {};      // set by PipeWire for a Flatpak-sandboxed client
    std::string snapId = {};         // set by PipeWire for a snap-confined client: the snap's name
    std::string applicationId = {};  // chosen by the application, often a reverse-DNS name
    std::string binary = {};         // the executable's file name
    std::string name = {};           // display name chosen by the application
    std::string iconName = {};       // icon name chosen by the application

    // The identity in a set of properties; `property` gives a property's value, or an empty
    // string when the set has none.
    static ApplicationIdentity fromProperties(
        const std::function<std::string(std::string_view)>& property);

    // The table identifier of a known meeting application ("zoom" and "us.zoom.Zoom" both give
    // "us.zoom.xos"). An unknown application keeps its own identity (the first non-empty of
    // its ids, binary and name), which the table then drops. Nothing when all are empty.
    //
    // A Flatpak id, or else a snap's name, decides alone: the sound server takes it from the
    // sandbox, not from the application, and a binary inside the sandbox may be generic
    // (Flatpak Chromium runs a binary called "chrome"). Otherwise the first field that names a
    // known application wins, as Electron and wrapper-launched applications often carry a
    // generic binary ("electron") or id next to a telling name. The one binary two browsers
    // share, "chrome", belongs to the browser the icon name names.
    std::optional<std::string> identifier() const;
};

}  // namespace velmora
