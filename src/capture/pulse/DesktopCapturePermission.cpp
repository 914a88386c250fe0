#include "capture/pulse/DesktopCapturePermission.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>

namespace velmora {

namespace {

std::optional<std::string> findProgram(const std::string& name, const std::string& searchPath) {
    std::stringstream folders(searchPath);
    std::string folder;
    while (std::getline(folders, folder, ':')) {
        if (folder.empty()) {
            continue;
        }
        const auto candidate = std::filesystem::path(folder) / name;
        if (::access(candidate.c_str(), X_OK) == 0 && !std::filesystem::is_directory(candidate)) {
            return candidate.string();
        }
    }
    return std::nullopt;
}

// Starts the program in a session of its own through an intermediate child that exits at once,
// so it outlives us and never becomes our zombie.
void spawnDetached(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        return;
    }
    if (child == 0) {
        ::setsid();
        if (::fork() != 0) {
            ::_exit(0);
        }
        const int nothing = ::open("/dev/null", O_RDWR);
        if (nothing >= 0) {
            ::dup2(nothing, STDIN_FILENO);
            ::dup2(nothing, STDOUT_FILENO);
            ::dup2(nothing, STDERR_FILENO);
        }
        ::close_range(3, ~0U, 0);
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

DesktopCapturePermission::DesktopCapturePermission()
    : candidates_(defaultCandidates()), useEnvironmentPath_(true) {}

DesktopCapturePermission::DesktopCapturePermission(std::vector<SettingsCommand> candidates,
                                                   std::string searchPath)
    : candidates_(std::move(candidates)),
      searchPath_(std::move(searchPath)),
      useEnvironmentPath_(false) {}

std::vector<DesktopCapturePermission::SettingsCommand>
DesktopCapturePermission::defaultCandidates() {
    return {
        {"gnome-control-center", "sound"},
        {"systemsettings", "kcm_pulseaudio"},
        {"pavucontrol"},
        {"pavucontrol-qt"},
    };
}

AudioCapturePermission::Status DesktopCapturePermission::status() {
    return Status::unknown;
}

void DesktopCapturePermission::request(std::function<void(bool granted)> completion) {
    if (completion) {
        completion(true);
    }
}

void DesktopCapturePermission::openSystemSettings() {
    std::string searchPath = searchPath_;
    if (useEnvironmentPath_) {
        const char* path = std::getenv("PATH");
        searchPath = path != nullptr ? path : "/usr/bin:/bin";
    }
    for (const auto& command : candidates_) {
        if (command.empty()) {
            continue;
        }
        if (auto program = findProgram(command.front(), searchPath)) {
            spawnDetached(*program, command);
            return;
        }
    }
}

}  // namespace velmora
