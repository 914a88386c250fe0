#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

namespace velmora::AppInstaller {

// $XDG_RUNTIME_DIR/velmora-audio-helper, where each running copy of the helper keeps its lock;
// empty without a runtime folder.
std::filesystem::path runningCopiesFolder();

// What makes a process a running copy of the helper, for the installer to find: a file
// "running-<pid>.lock" in the folder (0700; the file 0600, this user's own), holding the pid
// and write-locked (a POSIX record lock) for the copy's whole life. Commands (`settings`,
// `listen`) never take it, so nothing ever signals them. The kernel drops the lock when the
// process ends, however it ends.
class CopyLock {
  public:
    // The lock of this process in `folder`; absent (with a log line) when it can't be taken.
    static std::unique_ptr<CopyLock> take(const std::filesystem::path& folder);

    // What a starting helper finds: its own lock, or the other copies already running (and then
    // no lock of its own). Looking and taking happen under a lock on the folder, so of two
    // copies started at once exactly one goes on.
    struct Start {
        std::unique_ptr<CopyLock> lock;
        std::vector<pid_t> others;
    };
    static Start takeUnlessRunning(const std::filesystem::path& folder);
    ~CopyLock();
    CopyLock(const CopyLock&) = delete;
    CopyLock& operator=(const CopyLock&) = delete;

    const std::filesystem::path& file() const { return file_; }

  private:
    CopyLock(int descriptor, std::filesystem::path file);

    int descriptor_;
    std::filesystem::path file_;
};

// The processes, other than this one, that hold a copy lock in `folder` right now. Lock files
// nobody holds are left over from copies that ended and are removed.
std::vector<pid_t> lockHolders(const std::filesystem::path& folder);

// Whether `pid` holds its lock in `folder` at this moment.
bool holdsCopyLock(const std::filesystem::path& folder, pid_t pid);

}  // namespace velmora::AppInstaller
