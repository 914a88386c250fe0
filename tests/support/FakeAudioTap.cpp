#include "support/FakeAudioTap.h"

#include "config/SerialQueue.h"

namespace velmora::testing {
namespace {

std::size_t indexOf(FakeAudioTap::Step step) {
    return static_cast<std::size_t>(step);
}

}  // namespace

void FakeAudioTap::Control::setFormat(const TapStreamFormat& format) {
    std::lock_guard lock(mutex_);
    format_ = format;
}

TapStreamFormat FakeAudioTap::Control::format() {
    std::lock_guard lock(mutex_);
    return format_;
}

void FakeAudioTap::Control::failStep(Step step, CaptureError error, int times) {
    std::lock_guard lock(mutex_);
    if (times == 0) {
        failures_[indexOf(step)].reset();
    } else {
        failures_[indexOf(step)] = Failure{std::move(error), times};
    }
}

void FakeAudioTap::Control::failCreateTap(int times, std::int32_t status) {
    failStep(Step::createTap,
             CaptureError::device("Could not create the system audio tap (" +
                                  osStatusString(status) + ")."),
             times);
}

void FakeAudioTap::Control::failCreateDevice(int times, std::int32_t status) {
    failStep(Step::createDevice,
             CaptureError::device("Could not create the capture device (" + osStatusString(status) +
                                  ")."),
             times);
}

void FakeAudioTap::Control::failStartIO(int times, std::int32_t status) {
    if (status == permissionStatus) {
        failStep(Step::startIO, CaptureError::permissionDenied(), times);
        return;
    }
    failStep(Step::startIO,
             CaptureError::device("Could not start system audio capture (" +
                                  osStatusString(status) + ")."),
             times);
}

void FakeAudioTap::Control::refuseAccess(int times) {
    failStartIO(times, permissionStatus);
}

void FakeAudioTap::Control::clearFailures() {
    std::lock_guard lock(mutex_);
    for (auto& failure : failures_) failure.reset();
}

void FakeAudioTap::Control::throwIfFailing(Step step) {
    auto& failure = failures_[indexOf(step)];
    if (!failure) return;
    CaptureError error = failure->error;
    if (failure->remaining != always && --failure->remaining == 0) failure.reset();
    throw error;
}

bool FakeAudioTap::Control::deliver(std::vector<FakeBuffer> buffers) {
    std::lock_guard lock(mutex_);
    if (ioQueue_ == nullptr) return false;
    // The device's buffers live only during the call; the posted work owns its copy.
    ioQueue_->post([handler = handler_, buffers = std::move(buffers)] {
        std::vector<InputBuffer> list;
        list.reserve(buffers.size());
        for (const FakeBuffer& buffer : buffers) {
            list.push_back(InputBuffer{
                .channelCount = buffer.channelCount,
                .byteSize = buffer.byteSize.value_or(
                    static_cast<std::uint32_t>(buffer.samples.size() * sizeof(float))),
                .data = buffer.hasData ? static_cast<const void*>(buffer.samples.data()) : nullptr,
            });
        }
        handler(InputBufferList{.buffers = list});
    });
    return true;
}

bool FakeAudioTap::Control::deliverInterleaved(std::vector<float> samples, std::uint32_t channels) {
    std::vector<FakeBuffer> buffers;
    FakeBuffer buffer;
    buffer.channelCount = channels;
    buffer.samples = std::move(samples);
    buffers.push_back(std::move(buffer));
    return deliver(std::move(buffers));
}

bool FakeAudioTap::Control::deliverPlanar(std::vector<std::vector<float>> channels) {
    std::vector<FakeBuffer> buffers;
    for (auto& channel : channels) {
        FakeBuffer buffer;
        buffer.samples = std::move(channel);
        buffers.push_back(std::move(buffer));
    }
    return deliver(std::move(buffers));
}

void FakeAudioTap::Control::waitForDeliveries() {
    // Held so the capture (and its queue) cannot go away meanwhile.
    std::lock_guard lock(mutex_);
    if (ioQueue_ != nullptr) ioQueue_->runAndWait([] {});
}

void FakeAudioTap::Control::announceDefaultOutputChange() {
    std::function<void()> listener;
    {
        std::lock_guard lock(mutex_);
        listener = listener_;
    }
    if (listener) listener();
}

int FakeAudioTap::Control::createTapCalls() {
    std::lock_guard lock(mutex_);
    return createTapCalls_;
}

int FakeAudioTap::Control::createDeviceCalls() {
    std::lock_guard lock(mutex_);
    return createDeviceCalls_;
}

int FakeAudioTap::Control::startIOCalls() {
    std::lock_guard lock(mutex_);
    return startIOCalls_;
}

int FakeAudioTap::Control::teardownCalls() {
    std::lock_guard lock(mutex_);
    return teardownCalls_;
}

std::vector<std::string> FakeAudioTap::Control::calls() {
    std::lock_guard lock(mutex_);
    return calls_;
}

bool FakeAudioTap::Control::hasTap() {
    std::lock_guard lock(mutex_);
    return hasTap_;
}

bool FakeAudioTap::Control::hasDevice() {
    std::lock_guard lock(mutex_);
    return hasDevice_;
}

bool FakeAudioTap::Control::isIORunning() {
    std::lock_guard lock(mutex_);
    return ioQueue_ != nullptr;
}

bool FakeAudioTap::Control::hasListener() {
    std::lock_guard lock(mutex_);
    return static_cast<bool>(listener_);
}

FakeAudioTap::FakeAudioTap(std::shared_ptr<Control> control) : control_(std::move(control)) {}

FakeAudioTap::~FakeAudioTap() {
    std::lock_guard lock(control_->mutex_);
    control_->ioQueue_ = nullptr;
    control_->handler_ = nullptr;
    control_->listener_ = nullptr;
}

TapStreamFormat FakeAudioTap::createTap() {
    std::lock_guard lock(control_->mutex_);
    ++control_->createTapCalls_;
    control_->calls_.emplace_back("createTap");
    control_->throwIfFailing(Step::createTap);
    control_->hasTap_ = true;
    return control_->format_;
}

void FakeAudioTap::createDevice() {
    std::lock_guard lock(control_->mutex_);
    ++control_->createDeviceCalls_;
    control_->calls_.emplace_back("createDevice");
    control_->throwIfFailing(Step::createDevice);
    control_->hasDevice_ = true;
}

void FakeAudioTap::startIO(SerialQueue& queue, InputHandler handler) {
    std::lock_guard lock(control_->mutex_);
    ++control_->startIOCalls_;
    control_->calls_.emplace_back("startIO");
    control_->throwIfFailing(Step::startIO);
    control_->ioQueue_ = &queue;
    control_->handler_ = std::move(handler);
}

void FakeAudioTap::teardown() {
    std::lock_guard lock(control_->mutex_);
    ++control_->teardownCalls_;
    control_->calls_.emplace_back("teardown");
    control_->ioQueue_ = nullptr;
    control_->handler_ = nullptr;
    control_->hasDevice_ = false;
    control_->hasTap_ = false;
}

bool FakeAudioTap::hasTap() const {
    std::lock_guard lock(control_->mutex_);
    return control_->hasTap_;
}

void FakeAudioTap::installDefaultOutputListener(std::function<void()> changed) {
    std::lock_guard lock(control_->mutex_);
    control_->listener_ = std::move(changed);
}

}  // namespace velmora::testing
