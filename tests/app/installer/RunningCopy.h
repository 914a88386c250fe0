#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

namespace velmora::testing {

// A real child process standing for a running copy of the helper: a copy of sleep(1) under the
// given executable name, optionally ignoring SIGTERM the way a hung copy would.
class RunningCopy {
  public:
    RunningCopy(const std::filesystem::path& executable, bool ignoresTerminate) {
        std::filesystem::create_directories(executable.parent_path());
        std::filesystem::copy_file("/bin/sleep", executable,
                                   std::filesystem::copy_options::overwrite_existing);
        const std::string script =
            std::string(ignoresTerminate ? "trap '' TERM; " : "") + "exec \"$0\" 120";
        pid_ = ::fork();
        if (pid_ == 0) {
            ::execl("/bin/sh", "sh", "-c", script.c_str(), executable.c_str(), nullptr);
            ::_exit(127);
        }
        // Wait until the shell has become the copy, so it is found by its executable.
        const std::string link = "/proc/" + std::to_string(pid_) + "/exe";
        for (int attempt = 0; attempt < 500; ++attempt) {
            std::error_code error;
            if (std::filesystem::read_symlink(link, error).filename() == executable.filename()) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~RunningCopy() {
        if (!reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    RunningCopy(const RunningCopy&) = delete;
    RunningCopy& operator=(const RunningCopy&) = delete;

    pid_t pid() const { return pid_; }

    // The signal that ended it, or 0 when it exited by itself or is still running after a
    // generous wait (a signal is delivered a moment after it is sent).
    int endingSignal() {
        for (int attempt = 0; attempt < 1000; ++attempt) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                reaped_ = true;
                return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return 0;
    }

  private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

// A name no other process on the machine has, so tests never touch a real helper.
inline std::string uniqueExecutableName(const std::string& stem) {
    return "velmora-test-" + stem + "-" + std::to_string(::getpid());
}

}  // namespace velmora::testing
