#pragma once

#include <optional>
#include <string>

namespace velmora {

// What a recording stream says about the application behind it, and the application identifier
// that the meeting app table understands.
struct ApplicationIdentity {
    // Property names, as the sound server lists them on a stream or its client.
    static constexpr const char* flatpakIdProperty = "pipewire.access.portal.app_id";
    static constexpr const char* applicationIdProperty = "application.id";
    static constexpr const char* binaryProperty = "application.process.binary";
    static constexpr const char* nameProperty = "application.name";

    std::string flatpakId = {};      // set by PipeWire for a Flatpak-sandboxed client
    std::string applicationId = {};  // chosen by the application, often a reverse-DNS name
    std::string binary = {};         // the executable's file name
    std::string name = {};           // display name chosen by the application

    // The table identifier of a known meeting application ("zoom" and "us.zoom.Zoom" both give
    // "us.zoom.xos"). An unknown application keeps its own identity (the first non-empty of the
    // four fields), which the table then drops. Nothing when every field is empty.
    //
    // A Flatpak id decides alone: it names the package exactly, while a binary inside the sandbox
    // may be generic (Flatpak Chromium runs a binary called "chrome"). Otherwise the first field
    // that names a known application wins, as Electron and wrapper-launched applications often
    // carry a generic binary ("electron") or id next to a telling name.
    std::optional<std::string> identifier() const;
};

}  // namespace velmora
