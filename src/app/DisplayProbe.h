#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace velmora {

// Whether the display the environment names can be reached, found by connecting to its socket
// the way the display's own client library would, before anything loads Qt: Qt ends the process
// when it cannot open its display, which would leave the pages without a helper. A connection is
// enough to tell; authorising it stays Qt's business.
namespace DisplayProbe {

// Reads one environment variable; null when it is not set.
using Environment = std::function<const char*(const char*)>;

struct Verdict {
    // The tray can come up: a display answered, or the platform Qt was told to use needs none.
    bool reachable = false;
    // When only one of the X display and the Wayland compositor answered, the Qt platform that
    // reaches it ("xcb" or "wayland"), for QT_QPA_PLATFORM; empty when Qt's own choice is safe.
    std::string platform;
    // Why nothing answered, as a sentence for the log.
    std::string problem;
};

// `xSocketFolder` is where local X servers put their sockets (the abstract socket of the same
// name is tried first, as the X client library does).
Verdict probe(const Environment& environment,
              const std::filesystem::path& xSocketFolder = "/tmp/.X11-unix");

// The X display named by `display` (a DISPLAY value): nothing when it accepts a connection,
// otherwise why not.
std::optional<std::string> problemWithXDisplay(const std::string& display,
                                               const std::filesystem::path& xSocketFolder);

// The Wayland compositor named by WAYLAND_DISPLAY (a name in `runtimeFolder`, or an absolute
// socket path): nothing when it accepts a connection, otherwise why not.
std::optional<std::string> problemWithWaylandDisplay(const std::string& waylandDisplay,
                                                     const char* runtimeFolder);

}  // namespace DisplayProbe
}  // namespace velmora
