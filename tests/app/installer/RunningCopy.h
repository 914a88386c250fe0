#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "app/installer/CopyLock.h"

namespace velmora::testing {

// A real child process, ended when the object goes if nothing else ended it.
class ChildProcess {
  public:
    ChildProcess() = default;
    explicit ChildProcess(pid_t pid) : pid_(pid) {}
    ~ChildProcess() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }

    // The signal that ended it, 0 when it exited by itself, or -1 while it runs after a
    // generous wait (a signal is delivered a moment after it is sent).
    int endingSignal(std::chrono::milliseconds patience = std::chrono::seconds(10)) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        do {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                reaped_ = true;
                exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
                return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        } while (std::chrono::steady_clock::now() < deadline);
        return -1;
    }
    bool isRunning() { return endingSignal(std::chrono::milliseconds(0)) == -1; }
    // The exit code once endingSignal() saw it exit by itself; -1 otherwise.
    int exitCode() const { return exitCode_; }

  protected:
    int exitCode_ = -1;
    pid_t pid_ = -1;
    bool reaped_ = false;
};

// A child standing for a running copy of the helper: it holds a copy lock in `folder` as the
// helper does, optionally ignoring SIGTERM the way a hung copy would.
class RunningCopy : public ChildProcess {
  public:
    RunningCopy(const std::filesystem::path& folder, bool ignoresTerminate) {
        int ready[2];
        if (::pipe(ready) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(ready[0]);
            if (ignoresTerminate) ::signal(SIGTERM, SIG_IGN);
            auto lock = AppInstaller::CopyLock::take(folder);
            if (!lock) ::_exit(126);
            [[maybe_unused]] auto written = ::write(ready[1], "r", 1);
            for (;;) ::pause();
        }
        ::close(ready[1]);
        char byte = 0;
        [[maybe_unused]] auto got = ::read(ready[0], &byte, 1);
        ::close(ready[0]);
    }
};

// A process that only shares the helper's name: a copy of sh(1) called `executable` that waits,
// with the given words (say "settings") on its command line, so it looks like the helper, or
// one of its command runs, to anything that goes by names.
class NamesakeProcess : public ChildProcess {
  public:
    NamesakeProcess(const std::filesystem::path& executable, std::vector<std::string> arguments) {
        std::filesystem::create_directories(executable.parent_path());
        std::filesystem::copy_file("/bin/sh", executable,
                                   std::filesystem::copy_options::overwrite_existing);
        std::vector<std::string> words = {executable.string(), "-c", "while :; do sleep 0.2; done"};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (auto& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        if (::posix_spawn(&pid_, executable.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
    }
};

}  // namespace velmora::testing
