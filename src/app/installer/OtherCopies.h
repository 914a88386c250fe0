#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <vector>

namespace velmora::AppInstaller {

// Lets the caller's event loop run for about the given time; a caller without one just sleeps.
using EventLoopTurn = std::function<void(std::chrono::milliseconds)>;

inline constexpr std::chrono::milliseconds quitWait{3000};
inline constexpr std::chrono::milliseconds quitWaitSlice{100};

// The running copies of the helper other than this process: those holding a copy lock in
// `folder` (see CopyLock). Processes that merely share the name, and command runs, are not.
std::vector<pid_t> otherCopies(const std::filesystem::path& folder);

// Asks every other copy to quit (SIGTERM), waits for them for up to quitWait in quitWaitSlice
// slices while `turn` keeps the event loop going, then kills (SIGKILL) those still running.
// Each copy is signalled through a process descriptor opened while it was seen holding its lock,
// so a signal never reaches a process that took its number after it ended.
void quitOtherCopies(const std::filesystem::path& folder, const EventLoopTurn& turn);

}  // namespace velmora::AppInstaller
