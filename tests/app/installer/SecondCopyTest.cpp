// A helper started while another runs for the same user finds the first by its lock and ends
// with a message, instead of fighting it over the port.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "RunningCopy.h"
#include "app/HelperApplication.h"
#include "app/installer/CopyLock.h"
#include "config/AudioKit.h"
#include "config/LogFile.h"
#include "config/TemporaryFolder.h"
#include "support/FreePort.h"

namespace velmora {
namespace {

using testing::ChildProcess;
using ::testing::HasSubstr;
using testing::TemporaryFolder;

// The real helper with `args`, its standard error going to `errors`.
pid_t spawnHelper(const std::vector<std::string>& args, const std::filesystem::path& errors) {
    std::vector<std::string> words = {VELMORA_HELPER_EXECUTABLE};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Whether something answers an HTTP request on 127.0.0.1:`port` (the helper's WebSocket
// listener answers any request with a status line).
bool answersOn(std::uint16_t port) {
    int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool answered = false;
    if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        const std::string request = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
        timeval timeout{.tv_sec = 10, .tv_usec = 0};
        ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        char reply[16] = {};
        if (::write(socket, request.data(), request.size()) ==
                static_cast<ssize_t>(request.size()) &&
            ::read(socket, reply, 9) == 9) {
            answered = std::string(reply, 9) == "HTTP/1.1 ";
        }
    }
    ::close(socket);
    return answered;
}

class SecondCopy : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string port = std::to_string(port_);
        ChildProcess setPort(spawnHelper({"settings", "set", "port", port}, folder_ / "set"));
        ASSERT_EQ(setPort.endingSignal(), 0);
        ASSERT_EQ(setPort.exitCode(), 0);
    }

    // Waits until the first helper holds its lock and serves.
    void waitUntilServing(ChildProcess& helper) {
        bool serving = false;
        for (int attempt = 0; attempt < 500 && !serving; ++attempt) {
            serving = AppInstaller::holdsCopyLock(locks(), helper.pid()) && answersOn(port_);
            if (!serving) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ASSERT_TRUE(serving) << "the first helper did not come up";
    }

    std::filesystem::path locks() const { return runtime_ / "velmora-audio-helper"; }
    std::string errorsOf(const std::string& name) { return testing::readText(folder_ / name); }

    TemporaryFolder folder_;
    TemporaryFolder runtime_;
    testing::ScopedEnvironment runtimeFolder_{"XDG_RUNTIME_DIR", runtime_.path().string()};
    std::uint16_t port_ = testing::freePort();
};

TEST_F(SecondCopy, EndsWithAMessageWhileTheFirstKeepsServing) {
    ChildProcess first(spawnHelper({"--headless", "--no-welcome", "--no-install"}, folder_ / "1"));
    waitUntilServing(first);

    ChildProcess second(spawnHelper({"--headless", "--no-welcome"}, folder_ / "2"));
    ASSERT_EQ(second.endingSignal(), 0) << "the second copy did not end by itself";
    EXPECT_EQ(second.exitCode(), exitAlreadyRunning);
    EXPECT_EQ(errorsOf("2"),
              "velmora-audio-helper: Velmora Audio Helper is already running "
              "(process " +
                  std::to_string(first.pid()) + "); this copy ends.\n");
    EXPECT_FALSE(AppInstaller::holdsCopyLock(locks(), second.pid()));
    EXPECT_THAT(testing::readText(LogFile::defaultFolder() / AudioKit::config().logFileName),
                HasSubstr("Velmora Audio Helper is already running (process " +
                          std::to_string(first.pid()) + "); this copy ends.\n"));

    EXPECT_TRUE(first.isRunning());
    EXPECT_TRUE(answersOn(port_));
    EXPECT_THAT(AppInstaller::lockHolders(locks()), ::testing::ElementsAre(first.pid()));
}

// Commands are no copies of the helper: they run beside it as ever.
TEST_F(SecondCopy, CommandsStillRunBesideTheHelper) {
    ChildProcess first(spawnHelper({"--headless", "--no-welcome", "--no-install"}, folder_ / "1"));
    waitUntilServing(first);
    ChildProcess command(spawnHelper({"settings"}, folder_ / "command"));
    ASSERT_EQ(command.endingSignal(), 0);
    EXPECT_EQ(command.exitCode(), 0) << errorsOf("command");
    EXPECT_TRUE(first.isRunning());
}

// Once the first has ended, the next one starts as usual.
TEST_F(SecondCopy, AfterTheFirstEndsTheNextOneServes) {
    {
        ChildProcess first(
            spawnHelper({"--headless", "--no-welcome", "--no-install"}, folder_ / "1"));
        waitUntilServing(first);
        ::kill(first.pid(), SIGTERM);
        ASSERT_EQ(first.endingSignal(), 0);
    }
    ChildProcess next(spawnHelper({"--headless", "--no-welcome", "--no-install"}, folder_ / "2"));
    waitUntilServing(next);
    EXPECT_TRUE(next.isRunning());
}

// Of copies started all at once, exactly one goes on.
TEST_F(SecondCopy, OfManyStartedTogetherOneServes) {
    std::vector<std::unique_ptr<ChildProcess>> copies;
    for (int i = 0; i < 4; ++i) {
        copies.push_back(std::make_unique<ChildProcess>(spawnHelper(
            {"--headless", "--no-welcome", "--no-install"}, folder_ / std::to_string(i))));
    }
    int ended = 0;
    for (auto& copy : copies) {
        if (copy->endingSignal(std::chrono::seconds(5)) == 0) {
            EXPECT_EQ(copy->exitCode(), exitAlreadyRunning);
            ++ended;
        }
    }
    EXPECT_EQ(ended, 3);
    EXPECT_EQ(AppInstaller::lockHolders(locks()).size(), 1u);
    EXPECT_TRUE(answersOn(port_));
}

}  // namespace
}  // namespace velmora
