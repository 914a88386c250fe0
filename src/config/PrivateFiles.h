#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace velmora::PrivateFiles {

// The helper's own files: in folders only this user can enter, never reached through a
// symbolic link, never another user's file or a device, FIFO or socket planted in their place.
// Failures are returned as text that reads after "it " or "the folder ... " in a log line.

// Creates `folder` and its missing parents with mode 0700. An existing `folder` must be a folder
// of this user. With `narrowExisting` (the helper's own folders) it must not be a link and is
// narrowed to 0700; without (folders shared with other programs, such as the autostart folder)
// it keeps its mode and may be the user's link to a folder. The reason on failure.
std::optional<std::string> makeFolder(const std::filesystem::path& folder,
                                      bool narrowExisting = true);

// An open descriptor, or why there is none. `missing` is set when nothing is at the path,
// `refused` when something is there that is not this user's regular file.
struct Opened {
    int descriptor = -1;
    bool missing = false;
    bool refused = false;
    std::string problem;
    explicit operator bool() const { return descriptor >= 0; }
};

// Opens an existing file with `flags` (O_RDONLY, O_WRONLY | O_APPEND, ...) without following a
// link and without blocking on a FIFO; refuses anything but a regular file owned by this user.
// With `createMode` a missing file is created new (never through a dangling link). O_TRUNC
// empties the file only after these checks.
Opened open(const std::filesystem::path& file, int flags,
            std::optional<mode_t> createMode = std::nullopt);

// Replaces `target` with `text` so a reader sees the old or the new file, never a part: a new
// file with `mode` in the same folder, flushed to disk, renamed over the target. The folder is
// made as by makeFolder(folder, narrowFolder). Anything at the target that is not this user's
// regular file is left alone and refused. The reason on failure.
std::optional<std::string> replace(const std::filesystem::path& target, std::string_view text,
                                   mode_t mode, bool narrowFolder = true);

}  // namespace velmora::PrivateFiles
