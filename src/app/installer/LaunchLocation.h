#pragma once

#include <filesystem>
#include <optional>

namespace velmora::AppInstaller {

// True only when the file system holding `path` is known to be mounted read-only; a path that
// can't be asked about is not.
bool isOnReadOnlyFileSystem(const std::filesystem::path& path);

// The portable folder an executable belongs to: the folder holding its "bin" folder, or the
// executable's own folder when it does not live in one named "bin".
std::filesystem::path portableFolderOf(const std::filesystem::path& executable);

}  // namespace velmora::AppInstaller
