#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace velmora::AppInstaller {

// Lets the caller's event loop run for about the given time; a caller without one just sleeps.
using EventLoopTurn = std::function<void(std::chrono::milliseconds)>;

inline constexpr std::chrono::milliseconds quitWait{3000};
inline constexpr std::chrono::milliseconds quitWaitSlice{100};

// This user's running processes, other than this one, whose executable is a file named
// `executableName` (in whichever folder it lives).
std::vector<pid_t> otherCopies(const std::string& executableName);

// Asks every other copy to quit (SIGTERM), waits for them for up to quitWait in quitWaitSlice
// slices while `turn` keeps the event loop going, then kills (SIGKILL) those still running.
void quitOtherCopies(const std::string& executableName, const EventLoopTurn& turn);

}  // namespace velmora::AppInstaller
