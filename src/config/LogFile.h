#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// The log file side of log(): one line per message, opened, appended and closed each time.
// Not thread-safe; the log confines it to its own queue.
class LogFile {
  public:
    static constexpr std::uintmax_t sizeCap = 1'000'000;

    // With an empty folder there is no file: lines go to standard error (when a terminal) only.
    LogFile(std::filesystem::path folder, std::string fileName);

    // Writes "<stamp> <message>\n", the message as given. The first
    // write of a LogFile creates the folder (0700) and drops a file larger than sizeCap; the
    // file is created 0600. Failures are swallowed, but a path that is not this user's regular
    // file (a planted link, a FIFO, another user's file) is refused and the reason returned.
    std::optional<std::string> write(std::string_view message);

    // Empty when there is no file.
    const std::filesystem::path& path() const { return path_; }

    // "yyyy-MM-dd HH:mm:ss.SSS" in local time.
    static std::string stamp(std::chrono::system_clock::time_point time);

    // $XDG_STATE_HOME/velmora-audio-helper, defaulting to ~/.local/state/velmora-audio-helper;
    // empty without a home folder.
    static std::filesystem::path defaultFolder();

  private:
    void prepareOnce();

    std::filesystem::path folder_;
    std::filesystem::path path_;
    bool prepared_ = false;
};

}  // namespace velmora
