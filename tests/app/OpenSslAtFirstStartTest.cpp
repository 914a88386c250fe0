// The helper reads its pass-signing keys with OpenSSL when a page first asks to start, not at
// launch: an idle helper has touched little of OpenSSL's library, the first start touches much
// more. Measured on the real executable, in this test's private folders.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "config/AudioKit.h"
#include "config/HelperInfo.h"
#include "config/TemporaryFolder.h"
#include "support/FreePort.h"

extern char** environ;

namespace velmora {
namespace {

pid_t spawnHelper(std::vector<std::string> args) {
    std::string executable = VELMORA_HELPER_EXECUTABLE;
    std::vector<char*> argv{executable.data()};
    for (auto& argument : args) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    return ::posix_spawn(&pid, executable.c_str(), nullptr, nullptr, argv.data(), environ) == 0
               ? pid
               : -1;
}

// The process's exit status, or -1 when it did not end within 20 seconds.
int waitForExit(pid_t pid) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

std::string helperLog() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state == nullptr) return {};
    return testing::readText(std::filesystem::path(state) / "velmora-audio-helper" /
                             AudioKit::config().logFileName);
}

bool waitForLog(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        if (helperLog().find(text) != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// Kilobytes of OpenSSL's crypto library resident in the process (its mappings' Rss in smaps).
long cryptoLibraryKilobytes(pid_t pid) {
    std::ifstream smaps("/proc/" + std::to_string(pid) + "/smaps");
    static const std::regex mappingLine("^[0-9a-f]+-[0-9a-f]+ .*");
    bool inCrypto = false;
    long kilobytes = 0;
    for (std::string line; std::getline(smaps, line);) {
        if (std::regex_match(line, mappingLine)) {
            inCrypto = line.find("/libcrypto.so") != std::string::npos;
        } else if (inCrypto && line.starts_with("Rss:")) {
            kilobytes += std::stol(line.substr(4));
        }
    }
    return kilobytes;
}

TEST(OpenSslAtFirstStartTest, AnIdleHelperHasNotReadItsKeysTheFirstStartDoes) {
    const std::uint16_t port = testing::freePort();
    pid_t settings = spawnHelper({"settings", "set", "port", std::to_string(port)});
    ASSERT_GT(settings, 0);
    ASSERT_EQ(waitForExit(settings), 0);

    pid_t helper = spawnHelper({"--headless", "--no-welcome", "--no-install"});
    ASSERT_GT(helper, 0);
    ASSERT_TRUE(waitForLog("Listening on ws://127.0.0.1:" + std::to_string(port) + "/"))
        << helperLog();
    // The key count logged at launch comes from the keys' text.
    EXPECT_NE(helperLog().find("Trusting "), std::string::npos) << helperLog();
    const long idle = cryptoLibraryKilobytes(helper);

    // A page that asks to start with a pass: whether the helper accepts it (a development build
    // trusts this key) or refuses it, checking the pass reads the keys.
    const std::string origin = HelperInfo::builtInOrigins().front();
    pid_t page = spawnHelper({"listen", "--seconds", "1", "--port", std::to_string(port),
                              "--origin", origin, "--key", VELMORA_DEV_PASS_KEY_FILE});
    ASSERT_GT(page, 0);
    waitForExit(page);
    ASSERT_TRUE(waitForLog("Start ")) << helperLog();
    const long afterStart = cryptoLibraryKilobytes(helper);

    ::kill(helper, SIGTERM);
    if (waitForExit(helper) == -1) ::kill(helper, SIGKILL);

    // Parsing and checking the keys touches megabytes of the library; launching it, its
    // relocations and a base64 table. Where the keys are parsed at launch, the first start adds
    // little.
    EXPECT_GT(idle, 0) << "libcrypto is not mapped at all";
    EXPECT_GE(afterStart - idle, 1024)
        << "idle: " << idle << " kB, after the first start: " << afterStart << " kB";
}

}  // namespace
}  // namespace velmora
