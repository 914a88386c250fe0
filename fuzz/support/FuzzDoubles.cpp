#include "support/FuzzDoubles.h"

#include "capture/CaptureError.h"

namespace velmora::fuzzing {

TapStreamFormat UnavailableTap::createTap() {
    throw CaptureError::device("No system audio while fuzzing");
}

void UnavailableTap::createDevice() {
    throw CaptureError::device("No system audio while fuzzing");
}

void UnavailableTap::startIO(SerialQueue&, InputHandler) {
    throw CaptureError::device("No system audio while fuzzing");
}

}  // namespace velmora::fuzzing
