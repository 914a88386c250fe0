// The listener: where it listens, what happens when it cannot, restart and shutdown.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "RawConnection.h"
#include "ServerFixture.h"
#include "config/HelperInfo.h"

namespace velmora::testing {
namespace {

using nlohmann::json;

// A socket listening on 127.0.0.1:port, as another copy of the helper would.
class PortHolder {
  public:
    explicit PortHolder(std::uint16_t port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        listening_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                     ::listen(fd_, 4) == 0;
    }
    ~PortHolder() { release(); }
    bool listening() const { return listening_; }
    void release() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

  private:
    int fd_ = -1;
    bool listening_ = false;
};

// The local addresses on which something listens on this port, from the kernel's table.
std::vector<std::string> listeningAddresses(std::uint16_t port) {
    std::ifstream table("/proc/net/tcp");
    std::vector<std::string> addresses;
    std::string line;
    std::getline(table, line);  // header
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, local, remote, state;
        fields >> slot >> local >> remote >> state;
        auto colon = local.find(':');
        if (state != "0A" || colon == std::string::npos) continue;  // 0A: LISTEN
        if (std::stoul(local.substr(colon + 1), nullptr, 16) != port) continue;
        addresses.push_back(local.substr(0, colon));
    }
    return addresses;
}

bool isFailed(const HelperStatus& status) {
    return status.server.kind() == ServerState::Kind::failed;
}

class ListenerTest : public ServerFixture {};

TEST_F(ListenerTest, ListensOnTheLoopbackAddressOnlyAtTheConfiguredPort) {
    startServer();
    EXPECT_TRUE(log_.waitForLine("Listening on ws://127.0.0.1:" + std::to_string(port()) + "/"));
    EXPECT_EQ(listeningAddresses(port()), std::vector<std::string>{"0100007F"});
    EXPECT_TRUE(connectPage());
}

TEST_F(ListenerTest, NotListeningBeforeStart) {
    createServer();
    EXPECT_EQ(server_->status(), HelperStatus{});
    RawConnection connection(port());
    EXPECT_FALSE(connection.connected());
}

TEST_F(ListenerTest, PortInUseReportsItAndRetriesUntilThePortIsFree) {
    // The default port when it is free, so the text is exactly the one users see.
    PortHolder defaultHolder(HelperInfo::defaultPort);
    if (defaultHolder.listening()) setPort(HelperInfo::defaultPort);
    PortHolder otherHolder(port());
    PortHolder& holder = defaultHolder.listening() ? defaultHolder : otherHolder;
    ASSERT_TRUE(holder.listening());
    const std::string text =
        "Port " + std::to_string(port()) + " is already in use (is another copy running?)";

    createServer();
    server_->start();
    ASSERT_TRUE(statuses_.waitFor(isFailed));
    EXPECT_EQ(statuses_.latest()->server, ServerState::failed(text));
    if (port() == HelperInfo::defaultPort) {
        EXPECT_EQ(text, "Port 52849 is already in use (is another copy running?)");
    }
    // Another attempt follows after the retry delay, and fails the same way.
    auto deadline = std::chrono::steady_clock::now() + generousTimeout;
    while (log_.count(text + ": Address already in use") < 2 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_GE(log_.count(text + ": Address already in use"), 2);

    holder.release();
    EXPECT_TRUE(statuses_.waitFor(
        [](const HelperStatus& status) { return status.server == ServerState::listening(); }));
    EXPECT_TRUE(connectPage());
}

TEST_F(ListenerTest, CancelledListenerKeepsTheFailedText) {
    PortHolder holder(port());
    ASSERT_TRUE(holder.listening());
    createServer();
    server_->start();
    ASSERT_TRUE(statuses_.waitFor(isFailed));
    // The failed listener is cancelled at once, and retried; neither turns the text into
    // "stopped".
    auto deadline = std::chrono::steady_clock::now() + generousTimeout;
    const std::string line =
        "Port " + std::to_string(port()) +
        " is already in use (is another copy running?): Address already in use";
    while (log_.count(line) < 3 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    server_->shutdown();
    settleStatuses();
    for (const auto& status : statuses_.history()) {
        EXPECT_NE(status.server, ServerState::stopped());
        EXPECT_NE(status.server, ServerState::listening());
    }
    EXPECT_TRUE(isFailed(*statuses_.latest()));
}

TEST_F(ListenerTest, RestartInBetweenWinsOverThePendingRetry) {
    HelperServerTimings timings = fastTimings();
    timings.listenerRetryDelay = std::chrono::milliseconds(300);
    PortHolder holder(port());
    createServer(timings);
    server_->start();
    ASSERT_TRUE(statuses_.waitFor(isFailed));

    std::uint16_t newPort = freePort();
    setPort(newPort);
    server_->restart();
    ASSERT_TRUE(statuses_.waitFor(
        [](const HelperStatus& status) { return status.server == ServerState::listening(); }));
    // Longer than the retry delay: the retry scheduled before the restart does nothing.
    auto pending = log_.lines().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    auto lines = log_.lines();
    for (auto i = pending; i < lines.size(); ++i) {
        EXPECT_FALSE(lines[i].starts_with("Listening on") || lines[i].starts_with("Port "))
            << lines[i];
    }
    EXPECT_EQ(statuses_.latest()->server, ServerState::listening());
    EXPECT_TRUE(connectPage());
}

TEST_F(ListenerTest, RestartWhileStreamingSendsStoppedAndListensOnTheNewPort) {
    startServer();
    auto streaming = connectPage(pageA);
    auto watching = connectPage(pageB);
    startStreaming(*streaming, pageA);
    ASSERT_TRUE(
        statuses_.waitFor([](const HelperStatus& status) { return status.capturingFor == pageA; }));

    const std::uint16_t oldPort = port();
    const std::uint16_t newPort = freePort();
    setPort(newPort);
    server_->restart();

    EXPECT_EQ(streaming->nextText(), R"({"type":"stopped"})");
    EXPECT_TRUE(streaming->waitClosed());
    EXPECT_TRUE(watching->waitClosed());
    // The page that was not streaming is told nothing before its connection closes.
    EXPECT_FALSE(watching->nextText());
    EXPECT_TRUE(log_.waitForLine("Listening on ws://127.0.0.1:" + std::to_string(newPort) + "/"));
    EXPECT_TRUE(statuses_.waitFor([](const HelperStatus& status) {
        return status.server == ServerState::listening() && status.clients == 0 &&
               !status.capturingFor;
    }));
    EXPECT_FALSE(tap_->isIORunning());

    EXPECT_TRUE(connectPage(pageA));
    RawConnection old(oldPort);
    EXPECT_FALSE(old.connected());
}

TEST_F(ListenerTest, ShutdownSendsNothingToPages) {
    startServer();
    auto streaming = connectPage(pageA);
    auto idle = connectPage(pageB);
    startStreaming(*streaming, pageA);
    ASSERT_TRUE(streaming->waitForBinaryCount(1));

    server_->shutdown();

    EXPECT_TRUE(streaming->waitClosed());
    EXPECT_TRUE(idle->waitClosed());
    EXPECT_FALSE(streaming->nextText());
    EXPECT_FALSE(idle->nextText());
    EXPECT_FALSE(tap_->isIORunning());
    RawConnection after(port());
    EXPECT_FALSE(after.connected());
}

}  // namespace
}  // namespace velmora::testing
