#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "capture/AudioTap.h"
#include "capture/CaptureError.h"
#include "capture/TapStreamFormat.h"

namespace velmora::testing {

// One buffer of a fake device callback.
struct FakeBuffer {
    std::uint32_t channelCount = 1;
    std::vector<float> samples;
    bool hasData = true;                    // false: the buffer's data pointer is absent
    std::optional<std::uint32_t> byteSize;  // default: 4 bytes per sample
};

// A platform tap in memory. The test keeps the shared Control after handing the tap to the
// capture and uses it to set the format, make steps fail, deliver audio on the capture queue as
// a device would, and announce default-output changes. Every Control member is thread-safe;
// none may be called from inside the capture's onFrame/onLevel (they run on the capture queue).
class FakeAudioTap final : public AudioTap {
  public:
    static constexpr int always = -1;
    // Four-character platform statuses: an unspecified hardware error and the device
    // permissions error that stands for refused access.
    static constexpr std::int32_t unspecifiedStatus = 0x77686174;  // 'what'
    static constexpr std::int32_t permissionStatus = 0x21686F67;   // '!hog'

    enum class Step { createTap, createDevice, startIO };

    class Control {
      public:
        void setFormat(const TapStreamFormat& format);
        TapStreamFormat format();

        // The next `times` calls of the step (or every call) throw `error`.
        void failStep(Step step, CaptureError error, int times = always);
        // Device errors with the platform's texts for the failing status.
        void failCreateTap(int times = always, std::int32_t status = unspecifiedStatus);
        void failCreateDevice(int times = always, std::int32_t status = unspecifiedStatus);
        // '!hog' throws CaptureError::permissionDenied(), any other status a device error.
        void failStartIO(int times = always, std::int32_t status = unspecifiedStatus);
        // startIO is refused as when the recording permission is missing.
        void refuseAccess(int times = always);
        // Every step succeeds again.
        void clearFailures();

        // Delivers one device callback on the capture queue (asynchronously, like the device).
        // False when IO is not running: nothing is delivered.
        bool deliver(std::vector<FakeBuffer> buffers);
        bool deliverInterleaved(std::vector<float> samples, std::uint32_t channels);
        bool deliverPlanar(std::vector<std::vector<float>> channels);
        // Returns once every callback delivered so far has been handled.
        void waitForDeliveries();

        // Calls the capture's default-output listener (if installed) on the calling thread.
        void announceDefaultOutputChange();

        int createTapCalls();
        int createDeviceCalls();
        int startIOCalls();
        int teardownCalls();
        // The platform calls in order: "createTap", "createDevice", "startIO", "teardown".
        std::vector<std::string> calls();
        bool hasTap();
        bool hasDevice();
        bool isIORunning();
        bool hasListener();

      private:
        friend class FakeAudioTap;
        struct Failure {
            CaptureError error;
            int remaining;
        };
        void throwIfFailing(Step step);

        std::mutex mutex_;
        TapStreamFormat format_;
        std::optional<Failure> failures_[3];
        std::vector<std::string> calls_;
        int createTapCalls_ = 0;
        int createDeviceCalls_ = 0;
        int startIOCalls_ = 0;
        int teardownCalls_ = 0;
        bool hasTap_ = false;
        bool hasDevice_ = false;
        SerialQueue* ioQueue_ = nullptr;  // set while IO runs
        InputHandler handler_;
        std::function<void()> listener_;
    };

    explicit FakeAudioTap(std::shared_ptr<Control> control);
    ~FakeAudioTap() override;

    TapStreamFormat createTap() override;
    void createDevice() override;
    void startIO(SerialQueue& queue, InputHandler handler) override;
    void teardown() override;
    bool hasTap() const override;
    void installDefaultOutputListener(std::function<void()> changed) override;

  private:
    std::shared_ptr<Control> control_;
};

}  // namespace velmora::testing
