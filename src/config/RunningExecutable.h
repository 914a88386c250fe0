#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

namespace velmora {

// What the kernel appends to a process's executable link once the file has been removed or
// replaced (a package upgrade does that to a running helper).
inline constexpr std::string_view deletedMark = " (deleted)";

// The path of the executable the process behind `executableLink` (Linux: /proc/<pid>/exe) runs,
// links resolved; when the file was replaced, the path it was started from, where the new file
// now is. Nothing when the system won't say.
std::optional<std::filesystem::path> executableBehind(const std::filesystem::path& executableLink);

// The running program's own executable, as above: the one place the program asks.
std::optional<std::filesystem::path> runningExecutable();

}  // namespace velmora
