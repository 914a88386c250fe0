#pragma once

#include <chrono>

#include "server/HelperServer.h"

namespace velmora::testing {

// Starts `server` and waits until it reports that it listens; false when it did not within
// `patience`. The server's status handler is taken for this.
bool startAndWaitUntilListening(HelperServer& server, std::chrono::milliseconds patience);

}  // namespace velmora::testing
