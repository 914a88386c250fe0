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
    int exitCode = -1;                        // the child's, -1 when it did not exit
};

// Who the child is when it connects.
struct ProbeIdentity {
    // Another account to become (groups, gid, uid) first, which needs root.
    const passwd* account = nullptr;
    // A user namespace of its own that maps this user to itself, as the sandboxes of Flatpak
    // and snap browsers do. A child that cannot make one exits with `noUserNamespaceExit`.
    bool inUserNamespace = false;
};

inline constexpr int noUserNamespaceExit = 4;
// A child that became another account but cannot enter the root folder (some chroots close it
// to other users) exits with this.
inline constexpr int rootClosedToAccountExit = 5;

// Runs the page probe in a child process that connects to the helper with this origin.
// Nothing when the child could not be started.
std::optional<ProbeResult> runPageProbe(std::uint16_t port, const std::string& origin,
                                        ProbeIdentity identity = {});

}  // namespace velmora::testing
