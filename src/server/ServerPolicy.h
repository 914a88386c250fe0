#pragma once

#include "config/AudioKitConfig.h"

namespace velmora {

// Where the server listens and which pages it admits, handed to it by whoever creates it.
// `port` is asked at every listener (re)start and `isOriginAllowed` at every upgrade, so a
// changed setting applies at the next restart or handshake. Both may be called from any thread.
struct ServerPolicy {
    AudioKitConfig::PortHook port;
    AudioKitConfig::OriginHook isOriginAllowed;
};

}  // namespace velmora
