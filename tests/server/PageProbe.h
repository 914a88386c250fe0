#pragma once

#include <pwd.h>

#include <cstdint>
#include <optional>
#include <string>

namespace velmora::testing {

// What a page in a process of its own saw when it connected.
struct ProbeResult {
    int httpStatus = 0;                       // the answer to its upgrade request
    std::optional<std::string> firstMessage;  // the first text it was sent, once admitted
    std::string output;                       // everything it printed
};

// Runs the page probe in a child process that connects to the helper with this origin. With
// `account`, the child becomes that account (groups, gid, uid) before it starts the probe,
// which needs root. Nothing when the child could not be run.
std::optional<ProbeResult> runPageProbe(std::uint16_t port, const std::string& origin,
                                        const passwd* account = nullptr);

}  // namespace velmora::testing
