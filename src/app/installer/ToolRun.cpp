#include "app/installer/ToolRun.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "app/installer/InstallerError.h"

extern char** environ;

namespace velmora::AppInstaller {
namespace {

std::string trimmed(const std::string& text) {
    constexpr const char* blank = " \t\r\n\v\f";
    std::size_t first = text.find_first_not_of(blank);
    if (first == std::string::npos) return {};
    std::size_t last = text.find_last_not_of(blank);
    return text.substr(first, last - first + 1);
}

std::string readAll(int descriptor) {
    std::string text;
    char buffer[4096];
    for (;;) {
        ssize_t count = ::read(descriptor, buffer, sizeof buffer);
        if (count > 0) {
            text.append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
    }
}

}  // namespace

void run(const std::string& path, const std::vector<std::string>& arguments) {
    int pipeEnds[2];
    if (::pipe2(pipeEnds, O_CLOEXEC) != 0) {
        throw InstallerError("Couldn't start " + path + ": " + std::strerror(errno));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDERR_FILENO);

    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    pid_t child = 0;
    int spawnError = ::posix_spawn(&child, path.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeEnds[1]);
    if (spawnError != 0) {
        ::close(pipeEnds[0]);
        throw InstallerError("Couldn't start " + path + ": " + std::strerror(spawnError));
    }

    // Read before waiting: a tool that writes much to standard error would block on a full pipe.
    std::string errorOutput = readAll(pipeEnds[0]);
    ::close(pipeEnds[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;

    int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::string message = trimmed(errorOutput);
    if (message.empty()) message = path + " failed";
    throw InstallerError(message, code);
}

}  // namespace velmora::AppInstaller
