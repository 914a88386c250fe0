#include "app/HelperApplication.h"
#include "support/FreePort.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "access/HelperPass.h"
#include "config/AudioKit.h"
#include "config/HelperInfo.h"
#include "config/TemporaryFolder.h"
#include "support/PassSigner.h"

extern char** environ;

namespace velmora {
namespace {

using Action = HelperArguments::Action;

TEST(HelperArgumentsTest, NoArgumentsRunTheHelper) {
    EXPECT_EQ(HelperArguments::parse({}).action, Action::runHelper);
}

TEST(HelperArgumentsTest, HeadlessNoWelcomeAndNoInstallAreAccepted) {
    auto parsed = HelperArguments::parse({"--headless", "--no-welcome", "--no-install"});
    EXPECT_EQ(parsed.action, Action::runHelper);
    EXPECT_TRUE(parsed.noWelcome);
    EXPECT_TRUE(parsed.noInstall);
    EXPECT_FALSE(HelperArguments::parse({"--headless"}).noWelcome);
    EXPECT_TRUE(parsed.headless);
    EXPECT_FALSE(HelperArguments::parse({"--no-welcome"}).headless);
}

TEST(HelperArgumentsTest, TheTrayIsWantedOnlyWithADisplayAndWithoutHeadless) {
    testing::ScopedEnvironment display("DISPLAY", ":7");
    testing::ScopedEnvironment wayland("WAYLAND_DISPLAY", std::nullopt);
    testing::ScopedEnvironment platform("QT_QPA_PLATFORM", std::nullopt);
    EXPECT_TRUE(wantsTray(HelperArguments::parse({"--no-welcome"})));
    EXPECT_FALSE(wantsTray(HelperArguments::parse({"--headless"})));
    EXPECT_FALSE(wantsTray(HelperArguments::parse({"settings"})));
    EXPECT_FALSE(wantsTray(HelperArguments::parse({"listen"})));
    EXPECT_FALSE(wantsTray(HelperArguments::parse({"--version"})));
    {
        testing::ScopedEnvironment noDisplay("DISPLAY", "");
        EXPECT_FALSE(wantsTray(HelperArguments::parse({})));
        testing::ScopedEnvironment waylandDisplay("WAYLAND_DISPLAY", "wayland-0");
        EXPECT_TRUE(wantsTray(HelperArguments::parse({})));
    }
}

TEST(HelperArgumentsTest, SettingsAndListenTakeTheRestOfTheLine) {
    auto settings = HelperArguments::parse({"settings", "set", "port", "8080"});
    EXPECT_EQ(settings.action, Action::settings);
    EXPECT_EQ(settings.commandArguments, (std::vector<std::string>{"set", "port", "8080"}));
    auto listen = HelperArguments::parse({"listen", "--seconds", "2"});
    EXPECT_EQ(listen.action, Action::listen);
    EXPECT_EQ(listen.commandArguments, (std::vector<std::string>{"--seconds", "2"}));
}

TEST(HelperArgumentsTest, HelpAndVersion) {
    EXPECT_EQ(HelperArguments::parse({"--help"}).action, Action::help);
    EXPECT_EQ(HelperArguments::parse({"--no-welcome", "-h"}).action, Action::help);
    EXPECT_EQ(HelperArguments::parse({"--version"}).action, Action::version);
}

TEST(HelperArgumentsTest, UnknownOptionsAndWordsAreUsageErrors) {
    auto option = HelperArguments::parse({"--no-welcome", "--tray"});
    EXPECT_EQ(option.action, Action::usageError);
    EXPECT_EQ(option.problem, "unknown option --tray");
    EXPECT_EQ(HelperArguments::parse({"serve"}).problem, "unknown command serve");
    // A command name counts only in the first place.
    EXPECT_EQ(HelperArguments::parse({"--headless", "settings"}).action, Action::usageError);
}

TEST(HelperApplicationTest, UnknownOptionPrintsUsageOnStandardErrorAndExitsWith2) {
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(runHelperApplication({"--bogus"}, out, err), 2);
    EXPECT_TRUE(out.str().empty());
    EXPECT_NE(err.str().find("unknown option --bogus"), std::string::npos);
    EXPECT_NE(err.str().find("Usage: velmora-audio-helper"), std::string::npos);
}

TEST(HelperApplicationTest, VersionAndHelpGoToStandardOutput) {
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(runHelperApplication({"--version"}, out, err), 0);
    EXPECT_EQ(out.str(), "velmora-audio-helper " + HelperInfo::version() + "\n");
    out.str("");
    EXPECT_EQ(runHelperApplication({"--help"}, out, err), 0);
    EXPECT_NE(out.str().find("--no-welcome"), std::string::npos);
    EXPECT_TRUE(err.str().empty());
}

TEST(HelperApplicationTest, SettingsCommandIsDispatched) {
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(runHelperApplication({"settings", "set", "port", "not-a-port"}, out, err), 2);
    EXPECT_FALSE(err.str().empty());
}

// ---------------------------------------------------------------------------------------------
// The executable itself, in this test's private folders.

using testing::freePort;

pid_t spawnHelper(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    std::string executable = VELMORA_HELPER_EXECUTABLE;
    argv.push_back(executable.data());
    std::vector<std::string> copies = args;
    for (auto& argument : copies) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (::posix_spawn(&pid, executable.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    return pid;
}

// Waits for the process to end; its exit status, or -1 when it did not end in time.
int waitForExit(pid_t pid, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

// Connects as a page of the web application and returns what the helper answers at first.
std::string greetingFrom(std::uint16_t port) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(fd);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            continue;
        }
        std::string request =
            "GET / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
            "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
            "Origin: " +
            HelperInfo::builtInOrigins().front() + "\r\n\r\n";
        ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        std::string answer;
        while (answer.find("\"type\":\"hello\"") == std::string::npos &&
               std::chrono::steady_clock::now() < deadline) {
            pollfd entry{fd, POLLIN, 0};
            if (::poll(&entry, 1, 1000) <= 0) continue;
            char buffer[1024];
            auto count = ::recv(fd, buffer, sizeof buffer, 0);
            if (count <= 0) break;
            answer.append(buffer, static_cast<std::size_t>(count));
        }
        ::close(fd);
        return answer;
    }
    return {};
}

class HelperExecutableTest : public ::testing::TestWithParam<int> {};

TEST_P(HelperExecutableTest, ServesPagesOnTheSavedPortAndQuitsCleanlyOnASignal) {
    const std::uint16_t port = freePort();
    pid_t settings = spawnHelper({"settings", "set", "port", std::to_string(port)});
    ASSERT_GT(settings, 0);
    ASSERT_EQ(waitForExit(settings, std::chrono::seconds(20)), 0);

    pid_t helper = spawnHelper({"--headless", "--no-welcome", "--no-install"});
    ASSERT_GT(helper, 0);
    std::string greeting = greetingFrom(port);
    EXPECT_TRUE(greeting.starts_with("HTTP/1.1 101")) << greeting;
    EXPECT_NE(greeting.find("\"platform\":\"linux\""), std::string::npos) << greeting;

    ::kill(helper, GetParam());
    int status = waitForExit(helper, std::chrono::seconds(20));
    if (status == -1) ::kill(helper, SIGKILL);
    EXPECT_EQ(status, 0);
}

TEST(HelperExecutableStartTest, LogsHowManyPassKeysItTrustsAndWhetherAnyIsForDevelopment) {
    const std::uint16_t port = freePort();
    pid_t settings = spawnHelper({"settings", "set", "port", std::to_string(port)});
    ASSERT_GT(settings, 0);
    ASSERT_EQ(waitForExit(settings, std::chrono::seconds(20)), 0);

    pid_t helper = spawnHelper({"--headless", "--no-welcome", "--no-install"});
    ASSERT_GT(helper, 0);
    // Once it greets a page, its start is logged.
    EXPECT_NE(greetingFrom(port).find("\"type\":\"hello\""), std::string::npos);
    ::kill(helper, SIGTERM);
    if (waitForExit(helper, std::chrono::seconds(20)) == -1) ::kill(helper, SIGKILL);

    const char* state = std::getenv("XDG_STATE_HOME");
    ASSERT_NE(state, nullptr);
    const std::string log = testing::readText(
        std::filesystem::path(state) / "velmora-audio-helper" / AudioKit::config().logFileName);
    const std::string expected = HelperPass::trustedKeysText(HelperPass::keyCount());
    EXPECT_NE(log.find(expected + "\n"), std::string::npos) << log;
    // A development build trusts the development key and says so; a release build has none.
    EXPECT_NE(
        expected.find(PassSigner::developmentKeyIsBuiltIn() ? "of which 1 is a development key"
                                                            : ", no development key"),
        std::string::npos)
        << expected;
}

INSTANTIATE_TEST_SUITE_P(Signals, HelperExecutableTest, ::testing::Values(SIGTERM, SIGINT),
                         [](const auto& info) {
                             return std::string(info.param == SIGTERM ? "SIGTERM" : "SIGINT");
                         });

}  // namespace
}  // namespace velmora
