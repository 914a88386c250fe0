#pragma once

#include <pulse/context.h>

#include <optional>
#include <string>

namespace velmora {

// A new, unconnected context that names this application to the sound server (the name users
// see in their mixer, and the application id); null when libpulse cannot make one.
pa_context* createPulseContext(pa_mainloop_api* api);

// Starts connecting `context` to `server` (libpulse's own choice when absent) without ever
// spawning a server; returns the libpulse error code, 0 on success.
int connectPulseContext(pa_context* context, const std::optional<std::string>& server);

// Disconnects and releases a context after removing its callbacks, so none runs afterwards.
void releasePulseContext(pa_context*& context);

}  // namespace velmora
