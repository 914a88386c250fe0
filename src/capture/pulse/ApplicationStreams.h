#pragma once

#include <pulse/introspect.h>

namespace velmora {

// Whether a sink input is an application's playback, the audio the capture records, rather than
// audio the sound server routes on from somewhere it was already counted.
//
// An application's stream has a client (the connection that plays it). Left out:
// - a sink input without a client (client is PA_INVALID_INDEX): on PulseAudio and on PipeWire's
//   pulse server alike these are made by the server's own modules: combine-sink's streams into
//   its outputs, loopbacks, remap and echo-cancel sinks, each carrying audio that an
//   application's own stream already brought. (owner_module cannot tell them apart on
//   PulseAudio: a client's stream is owned by the protocol module that serves it.)
// - a sink input with the property "node.link-group": PipeWire's mark of the output half of a
//   node pair made by its loopback, filter-chain, combine-stream or echo-cancel modules, which
//   route the same way, whichever process loaded them.
//
// The capture's own streams are record streams (source outputs), never sink inputs, so nothing
// needs leaving out for them.
bool isApplicationStream(const pa_sink_input_info& info);

}  // namespace velmora
