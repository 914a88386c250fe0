#include "support/CaptureLog.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "config/AudioKit.h"
#include "config/Log.h"
#include "config/LogFile.h"

namespace velmora::testing {
namespace {

// Made before main, so before the first line is logged and the log fixes its folder; removed
// after the log (made later, so destroyed earlier) has written its last line.
struct PrivateLogFolder {
    PrivateLogFolder()
        : path(std::filesystem::temp_directory_path() /
               ("velmora-tests-" + std::to_string(::getpid()))) {
        std::filesystem::create_directories(path);
        ::setenv("XDG_STATE_HOME", path.c_str(), 1);
    }
    ~PrivateLogFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::filesystem::path path;
};

const PrivateLogFolder privateLogFolder;

std::filesystem::path logPath() {
    return LogFile::defaultFolder() / AudioKit::config().logFileName;
}

std::size_t currentSize() {
    flushLog();
    std::error_code error;
    auto size = std::filesystem::file_size(logPath(), error);
    return error ? 0 : static_cast<std::size_t>(size);
}

// "yyyy-MM-dd HH:mm:ss.SSS " in front of every message.
constexpr std::size_t stampLength = 24;

}  // namespace

CaptureLog::CaptureLog() : startOffset_(currentSize()) {
    static_cast<void>(privateLogFolder);
}

std::vector<std::string> CaptureLog::lines() const {
    flushLog();
    std::ifstream file(logPath(), std::ios::binary);
    file.seekg(static_cast<std::streamoff>(startOffset_));
    std::vector<std::string> result;
    std::string line;
    while (std::getline(file, line)) {
        result.push_back(line.size() >= stampLength ? line.substr(stampLength) : line);
    }
    return result;
}

std::size_t CaptureLog::count(const std::string& line) const {
    const auto all = lines();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), line));
}

bool CaptureLog::waitFor(const std::string& line, std::size_t times,
                         std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (count(line) < times) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::vector<std::string> CaptureLog::startingWith(const std::string& prefix) const {
    std::vector<std::string> result;
    for (auto& line : lines()) {
        if (line.rfind(prefix, 0) == 0) {
            result.push_back(line);
        }
    }
    return result;
}

}  // namespace velmora::testing
