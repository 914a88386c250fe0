#include "config/LogFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace velmora {

LogFile::LogFile(std::filesystem::path folder, std::string fileName)
    : folder_(std::move(folder)), path_(folder_ / fileName) {}

std::filesystem::path LogFile::defaultFolder() {
    const char* state = std::getenv("XDG_STATE_HOME");
    std::filesystem::path base;
    if (state != nullptr && state[0] == '/') {
        base = state;
    } else {
        const char* home = std::getenv("HOME");
        base = std::filesystem::path(home != nullptr ? home : "/tmp") / ".local" / "state";
    }
    return base / "velmora-audio-helper";
}

std::string LogFile::stamp(std::chrono::system_clock::time_point time) {
    auto seconds = std::chrono::system_clock::to_time_t(time);
    auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()) % 1000;
    if (millis.count() < 0) millis += std::chrono::milliseconds(1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(millis.count()));
    return text;
}

void LogFile::prepareOnce() {
    if (prepared_) return;
    prepared_ = true;
    std::error_code ignored;
    std::filesystem::create_directories(folder_, ignored);
    // No rotation: an oversized file from earlier runs is dropped once, at the run's first write.
    auto size = std::filesystem::file_size(path_, ignored);
    if (!ignored && size > sizeCap) std::filesystem::remove(path_, ignored);
}

void LogFile::write(std::string_view message) {
    prepareOnce();
    std::string line = stamp(std::chrono::system_clock::now());
    line += ' ';
    line += message;
    line += '\n';

    if (isatty(STDERR_FILENO) == 1) {
        [[maybe_unused]] auto written = ::write(STDERR_FILENO, line.data(), line.size());
    }

    int fd = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    const char* data = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        auto written = ::write(fd, data, left);
        if (written <= 0) break;
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    ::close(fd);
}

}  // namespace velmora
