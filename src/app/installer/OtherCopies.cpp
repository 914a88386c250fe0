#include "app/installer/OtherCopies.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "app/installer/CopyLock.h"

namespace velmora::AppInstaller {
namespace {

// A copy held by a process descriptor: signals sent through it reach that process or nobody.
struct HeldCopy {
    int descriptor;
    bool ended = false;
};

int openProcess(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

bool sendSignal(int descriptor, int signal) {
    return ::syscall(SYS_pidfd_send_signal, descriptor, signal, nullptr, 0) == 0;
}

// A process descriptor reads as ready once its process has ended (reaped or not).
bool hasEnded(int descriptor) {
    pollfd entry{.fd = descriptor, .events = POLLIN, .revents = 0};
    return ::poll(&entry, 1, 0) == 1;
}

}  // namespace

std::vector<pid_t> otherCopies(const std::filesystem::path& folder) {
    return lockHolders(folder);
}

void quitOtherCopies(const std::filesystem::path& folder, const EventLoopTurn& turn) {
    std::vector<HeldCopy> copies;
    for (pid_t pid : lockHolders(folder)) {
        int descriptor = openProcess(pid);
        if (descriptor < 0) continue;  // gone already
        // The descriptor is for whichever process has the number now; it is a copy only if
        // that process still holds the lock after the descriptor was opened.
        if (!holdsCopyLock(folder, pid)) {
            ::close(descriptor);
            continue;
        }
        copies.push_back({descriptor});
    }
    if (copies.empty()) return;
    for (HeldCopy& copy : copies) {
        if (!sendSignal(copy.descriptor, SIGTERM)) copy.ended = true;
    }

    const auto deadline = std::chrono::steady_clock::now() + quitWait;
    for (HeldCopy& copy : copies) {
        while (!copy.ended && !(copy.ended = hasEnded(copy.descriptor)) &&
               std::chrono::steady_clock::now() < deadline) {
            turn(quitWaitSlice);
        }
    }
    for (HeldCopy& copy : copies) {
        if (!copy.ended && !hasEnded(copy.descriptor)) sendSignal(copy.descriptor, SIGKILL);
        ::close(copy.descriptor);
    }
}

}  // namespace velmora::AppInstaller
