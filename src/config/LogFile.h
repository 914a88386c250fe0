#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace velmora {

// The log file side of log(): one line per message, opened, appended and closed each time.
// Not thread-safe; the log confines it to its own queue.
class LogFile {
  public:
    static constexpr std::uintmax_t sizeCap = 1'000'000;

    LogFile(std::filesystem::path folder, std::string fileName);

    // Writes "<stamp> <message>\n". The first write of a LogFile creates the folder and drops a
    // file larger than sizeCap. Every failure is swallowed.
    void write(std::string_view message);

    const std::filesystem::path& path() const { return path_; }

    // "yyyy-MM-dd HH:mm:ss.SSS" in local time.
    static std::string stamp(std::chrono::system_clock::time_point time);

    // $XDG_STATE_HOME/velmora-audio-helper, defaulting to ~/.local/state/velmora-audio-helper.
    static std::filesystem::path defaultFolder();

  private:
    void prepareOnce();

    std::filesystem::path folder_;
    std::filesystem::path path_;
    bool prepared_ = false;
};

}  // namespace velmora
