#include "PageProbe.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <string_view>

namespace velmora::testing {
namespace {

namespace fs = std::filesystem;

// A copy of the probe that any account can run: the build folder may be closed to others.
class SharedProbe {
  public:
    SharedProbe() {
        std::string pattern = (fs::temp_directory_path() / "velmora-probe-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) return;
        folder_ = pattern;
        fs::permissions(folder_, fs::perms::owner_all | fs::perms::group_read |
                                     fs::perms::group_exec | fs::perms::others_read |
                                     fs::perms::others_exec);
        path_ = folder_ / "page-probe";
        fs::copy_file(VELMORA_PAGE_PROBE, path_);
    }
    ~SharedProbe() {
        std::error_code ignored;
        if (!folder_.empty()) fs::remove_all(folder_, ignored);
    }
    const fs::path& path() const { return path_; }

  private:
    fs::path folder_;
    fs::path path_;
};

ProbeResult parse(std::string output) {
    ProbeResult result;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.starts_with("status ")) result.httpStatus = std::stoi(line.substr(7));
        if (line.starts_with("message ")) result.firstMessage = line.substr(8);
    }
    result.output = std::move(output);
    return result;
}

// Writes a whole short text to a file; async-signal-safe, for the child before exec.
bool writeFile(const char* path, std::string_view text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return written;
}

}  // namespace

std::optional<ProbeResult> runPageProbe(std::uint16_t port, const std::string& origin,
                                        ProbeIdentity identity) {
    const passwd* account = identity.account;
    // Formatted before the fork: the child may not allocate.
    const std::string uidMap = std::to_string(::getuid()) + " " + std::to_string(::getuid()) + " 1";
    const std::string gidMap = std::to_string(::getgid()) + " " + std::to_string(::getgid()) + " 1";
    SharedProbe probe;
    if (probe.path().empty()) return std::nullopt;
    const std::string executable = probe.path().string();
    const std::string portText = std::to_string(port);
    int output[2];
    if (::pipe2(output, O_CLOEXEC) != 0) return std::nullopt;
    const uid_t uid = account ? account->pw_uid : 0;
    const gid_t gid = account ? account->pw_gid : 0;
    const pid_t child = ::fork();
    if (child < 0) return std::nullopt;
    if (child == 0) {
        // Only async-signal-safe calls between fork and exec: the test process has threads.
        ::dup2(output[1], STDOUT_FILENO);
        if (account) {
            if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0 ||
                ::getuid() != uid) {
                ::_exit(3);
            }
            if (::chdir("/") != 0) ::_exit(rootClosedToAccountExit);
        }
        if (identity.inUserNamespace) {
            if (::unshare(CLONE_NEWUSER) != 0) ::_exit(noUserNamespaceExit);
            if (!writeFile("/proc/self/setgroups", "deny") ||
                !writeFile("/proc/self/uid_map", uidMap) ||
                !writeFile("/proc/self/gid_map", gidMap)) {
                ::_exit(noUserNamespaceExit);
            }
        }
        const char* arguments[] = {executable.c_str(), portText.c_str(), origin.c_str(), nullptr};
        ::execv(executable.c_str(), const_cast<char* const*>(arguments));
        ::_exit(127);
    }
    ::close(output[1]);
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd entry{output[0], POLLIN, 0};
        if (::poll(&entry, 1, 1000) <= 0) continue;
        char buffer[4096];
        const ssize_t count = ::read(output[0], buffer, sizeof buffer);
        if (count <= 0) break;
        text.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(output[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (exitCode != 0) text += "\n(wait status " + std::to_string(status) + ")";
    auto result = parse(std::move(text));
    result.exitCode = exitCode;
    return result;
}

}  // namespace velmora::testing
