#pragma once

#include <functional>

#include "capture/InputBuffer.h"
#include "capture/TapStreamFormat.h"

namespace velmora {

class SerialQueue;

// The platform operations beneath SystemAudioCapture: a tap on the system audio output, the
// capture device around it, its IO, and news of default-output-device changes. Every failing
// operation throws CaptureError with the message the capture's users see. All calls but the
// listener come from one thread at a time (the server's queue).
class AudioTap {
  public:
    using InputHandler = std::function<void(const InputBufferList&)>;

    virtual ~AudioTap() = default;

    // Creates the tap on the system output and reports its stream format.
    virtual TapStreamFormat createTap() = 0;

    // Creates the capture device around the tap, clocked by the current default output.
    virtual void createDevice() = 0;

    // Starts IO. The handler is called on `queue`, one call per device callback; the buffers are
    // valid only during the call. Access refused by the system throws
    // CaptureError::permissionDenied().
    virtual void startIO(SerialQueue& queue, InputHandler handler) = 0;

    // Stops IO and destroys device and tap; harmless when there is nothing to destroy.
    virtual void teardown() = 0;

    // Whether a tap currently exists.
    virtual bool hasTap() const = 0;

    // Installs the default-output-device listener; called at most once. `changed` may be called
    // on any thread, also when the running stream breaks (so a rebuild follows).
    virtual void installDefaultOutputListener(std::function<void()> changed) = 0;
};

}  // namespace velmora
