#include "support/FuzzDoubles.h"

#include <unistd.h>

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

std::optional<PeerSocket> OwnPeers::find(const boost::asio::ip::tcp::endpoint&,
                                         const boost::asio::ip::tcp::endpoint&) {
    return PeerSocket{static_cast<std::uint32_t>(::getuid()), nextInode_++};
}

}  // namespace velmora::fuzzing
