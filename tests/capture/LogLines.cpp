#include "capture/LogLines.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "config/AudioKit.h"
#include "config/Log.h"
#include "config/LogFile.h"

namespace velmora::testing {
namespace {

// Runs before main, so before the first line is logged and the log fixes its folder.
const std::filesystem::path& testFolder() {
    static const std::filesystem::path folder =
        std::filesystem::temp_directory_path() /
        ("velmora-capture-tests-" + std::to_string(::getpid()));
    return folder;
}

const bool privateLogFolder = [] {
    const auto& folder = testFolder();
    std::filesystem::create_directories(folder);
    ::setenv("XDG_STATE_HOME", folder.c_str(), 1);
    // Registered before the log exists, so it runs after the log has written its last line.
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(testFolder(), ignored);
    });
    return true;
}();

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

LogLines::LogLines() : startOffset_(currentSize()) {
    static_cast<void>(privateLogFolder);
}

std::vector<std::string> LogLines::lines() const {
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

std::vector<std::string> LogLines::startingWith(const std::string& prefix) const {
    std::vector<std::string> result;
    for (auto& line : lines()) {
        if (line.rfind(prefix, 0) == 0) result.push_back(line);
    }
    return result;
}

}  // namespace velmora::testing
