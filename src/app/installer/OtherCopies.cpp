#include "app/installer/OtherCopies.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>

namespace velmora::AppInstaller {
namespace {

std::optional<pid_t> processNumber(const std::string& name) {
    pid_t pid = 0;
    auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (error != std::errc() || end != name.data() + name.size() || pid <= 0) return std::nullopt;
    return pid;
}

// A process that has exited but not been reaped by its parent counts as gone.
bool isRunning(pid_t pid) {
    if (::kill(pid, 0) != 0) return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    std::size_t close = text.rfind(')');
    if (close == std::string::npos || close + 2 >= text.size()) return true;
    char state = text[close + 2];
    return state != 'Z' && state != 'X';
}

std::string executableFileName(const std::filesystem::path& processFolder) {
    std::error_code error;
    std::string target = std::filesystem::read_symlink(processFolder / "exe", error).string();
    if (error) return {};
    // A replaced or trashed executable reads as "<path> (deleted)".
    constexpr std::string_view deleted = " (deleted)";
    if (target.ends_with(deleted)) target.resize(target.size() - deleted.size());
    return std::filesystem::path(target).filename().string();
}

}  // namespace

std::vector<pid_t> otherCopies(const std::string& executableName) {
    std::vector<pid_t> copies;
    const pid_t self = ::getpid();
    const uid_t user = ::getuid();
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        std::optional<pid_t> pid = processNumber(entry.path().filename().string());
        if (!pid || *pid == self) continue;
        struct stat info {};
        if (::stat(entry.path().c_str(), &info) != 0 || info.st_uid != user) continue;
        if (executableFileName(entry.path()) != executableName) continue;
        if (isRunning(*pid)) copies.push_back(*pid);
    }
    return copies;
}

void quitOtherCopies(const std::string& executableName, const EventLoopTurn& turn) {
    std::vector<pid_t> copies = otherCopies(executableName);
    if (copies.empty()) return;
    for (pid_t pid : copies) ::kill(pid, SIGTERM);

    const auto deadline = std::chrono::steady_clock::now() + quitWait;
    for (pid_t pid : copies) {
        while (isRunning(pid) && std::chrono::steady_clock::now() < deadline) turn(quitWaitSlice);
    }
    for (pid_t pid : copies) {
        if (isRunning(pid)) ::kill(pid, SIGKILL);
    }
}

}  // namespace velmora::AppInstaller
