#include "conformance/ServerProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <string_view>

extern char** environ;

namespace velmora::conformance {

ServerProcess::ServerProcess(const std::string& executable, std::chrono::milliseconds timeout) {
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
    std::string port = "0";
    char* arguments[] = {const_cast<char*>(executable.c_str()), port.data(), nullptr};
    const int spawned =
        posix_spawn(&pid_, executable.c_str(), &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe[1]);
    stdout_ = pipe[0];
    if (spawned != 0) {
        pid_ = -1;
        return;
    }

    static constexpr std::string_view prefix = "Listening on ws://127.0.0.1:";
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (output_.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return;
        pollfd readable{stdout_, POLLIN, 0};
        if (::poll(&readable, 1, static_cast<int>(left.count())) <= 0) continue;
        char chunk[256];
        const ssize_t count = ::read(stdout_, chunk, sizeof chunk);
        if (count <= 0) return;  // it exited
        output_.append(chunk, static_cast<std::size_t>(count));
    }
    const auto at = output_.find(prefix);
    if (at == std::string::npos) return;
    const char* first = output_.data() + at + prefix.size();
    std::from_chars(first, output_.data() + output_.size(), port_);
}

ServerProcess::~ServerProcess() {
    stop();
}

int ServerProcess::stop() {
    if (pid_ < 0) return exitStatus_;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    if (stdout_ >= 0) ::close(stdout_);
    stdout_ = -1;
    exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return exitStatus_;
}

}  // namespace velmora::conformance
