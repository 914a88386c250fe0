#include "config/LogFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "config/PrivateFiles.h"
#include "config/UserFolders.h"

namespace velmora {

LogFile::LogFile(std::filesystem::path folder, std::string fileName) : folder_(std::move(folder)) {
    if (!folder_.empty()) path_ = folder_ / fileName;
}

std::filesystem::path LogFile::defaultFolder() {
    std::optional<std::filesystem::path> state = UserFolders::stateHome();
    if (!state) return {};
    return *state / "velmora-audio-helper";
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
    if (prepared_ || folder_.empty()) return;
    prepared_ = true;
    if (PrivateFiles::makeFolder(folder_)) return;  // the open below then fails and says why
    // No rotation: an oversized file from earlier runs is dropped once, at the run's first
    // write; only a regular file, never what a link points at.
    struct stat info {};
    if (::lstat(path_.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == ::geteuid() &&
        static_cast<std::uintmax_t>(info.st_size) > sizeCap) {
        ::unlink(path_.c_str());
    }
}

std::optional<std::string> LogFile::write(std::string_view message) {
    prepareOnce();
    std::string line = stamp(std::chrono::system_clock::now());
    line += ' ';
    line += message;
    line += '\n';

    if (isatty(STDERR_FILENO) == 1) {
        [[maybe_unused]] auto written = ::write(STDERR_FILENO, line.data(), line.size());
    }
    if (path_.empty()) return std::nullopt;

    PrivateFiles::Opened file = PrivateFiles::open(path_, O_WRONLY | O_APPEND, 0600);
    if (!file) {
        // A missing folder or a full disk is swallowed like any write failure; a thing planted
        // where the log belongs is reported.
        if (!file.refused) return std::nullopt;
        return "The log file " + path_.string() + " " + file.problem +
               "; it was left alone and lines go to the system log only.";
    }
    const char* data = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        auto written = ::write(file.descriptor, data, left);
        if (written <= 0) break;
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    ::close(file.descriptor);
    return std::nullopt;
}

}  // namespace velmora
