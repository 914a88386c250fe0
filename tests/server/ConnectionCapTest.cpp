// Caps on open connections, and an accept loop that lives through running out of descriptors.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "PageProbe.h"
#include "RawConnection.h"
#include "ServerFixture.h"
#include "config/Log.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;

class ConnectionCapTest : public ServerFixture {
  protected:
    std::shared_ptr<TestPage> refusedPage(int expectedStatus) {
        auto opening = TestPage::open(network_, port(), {.origin = pageA});
        EXPECT_FALSE(opening.page);
        EXPECT_EQ(opening.httpStatus, expectedStatus);
        return opening.page;
    }

    void waitForClients(int count) {
        ASSERT_TRUE(statuses_.waitFor(
            [count](const HelperStatus& status) { return status.clients == count; }));
    }
};

// In a child process of its own (the test re-run alone): ends it with `code` after `message`.
[[noreturn]] void endChild(int code, const std::string& message) {
    std::fprintf(stderr, "%s\n", message.c_str());
    std::fflush(stderr);
    std::_Exit(code);
}

void requireInChild(bool condition, const std::string& what) {
    if (!condition) endChild(1, "failed: " + what);
}

TEST_F(ConnectionCapTest, BeyondTheOverallCapPagesAreAnswered503AndEachBurstLoggedOnce) {
    auto timings = fastTimings();
    timings.limits.maxConnections = 3;
    startServer(timings);
    std::vector<std::shared_ptr<TestPage>> pages;
    for (int i = 0; i < 3; ++i) pages.push_back(connectPage(pageA));
    const std::string burstLine = "Refusing connections: 3 are open, the most this helper keeps";

    refusedPage(503);
    refusedPage(503);
    ASSERT_TRUE(log_.waitForLine(burstLine));

    // Room again: the next page is admitted, and the burst is over.
    pages.front()->close();
    waitForClients(2);
    pages.front() = connectPage(pageA);
    ASSERT_TRUE(pages.front());
    refusedPage(503);
    EXPECT_TRUE(log_.waitForLine("Client connected (" + pageA + ")"));
    settleStatuses();
    flushLog();
    EXPECT_EQ(log_.count(burstLine), 2);
}

TEST_F(ConnectionCapTest, OneProcessMeetsItsOwnCapWhileAnotherProcessIsAdmitted) {
    auto timings = fastTimings();
    timings.limits.maxConnectionsPerProcess = 2;
    startServer(timings);
    auto first = connectPage(pageA);
    auto second = connectPage(pageA);
    ASSERT_TRUE(first && second);

    refusedPage(503);
    refusedPage(503);
    const std::string burstLine = "Refusing connections from process " +
                                  std::to_string(::getpid()) +
                                  ": it has 2 open, the most one process may keep";
    ASSERT_TRUE(log_.waitForLine(burstLine));

    auto other = runPageProbe(port(), pageA);
    ASSERT_TRUE(other);
    EXPECT_EQ(other->httpStatus, 101) << other->output;
    ASSERT_TRUE(other->firstMessage) << other->output;
    EXPECT_EQ(nlohmann::json::parse(*other->firstMessage)["type"], "hello");
    flushLog();
    EXPECT_EQ(log_.count(burstLine), 1);
}

TEST_F(ConnectionCapTest, ALowOpenFileLimitIsRaisedAtStart) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            rlimit limit{};
            requireInChild(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
            requireInChild(limit.rlim_max == RLIM_INFINITY || limit.rlim_max >= 448,
                           "a hard limit of at least 448");
            limit.rlim_cur = 64;
            requireInChild(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "lowering the soft limit");
            startServer();
            requireInChild(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
            // 256 connections, 64 still in their upgrade, 128 for the rest of the helper.
            requireInChild(limit.rlim_cur == 448,
                           "soft limit raised to 448, is " + std::to_string(limit.rlim_cur));
            requireInChild(log_.waitForLine("Open file limit 64 is too low for 320 connections; "
                                            "raised it to 448"),
                           "the log line");
            endChild(0, "raised");
        },
        ::testing::ExitedWithCode(0), "raised");
}

TEST_F(ConnectionCapTest, AcceptingOutOfDescriptorsWaitsWithoutSpinningAndRecovers) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            startServer();
            rlimit limit{};
            requireInChild(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
            limit.rlim_cur = 256;
            requireInChild(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "lowering the soft limit");
            // Take every descriptor but one, and spend that one on the connection to accept.
            std::vector<int> filler;
            for (int fd; (fd = ::dup(STDERR_FILENO)) >= 0;) filler.push_back(fd);
            requireInChild(errno == EMFILE && !filler.empty(), "filling the descriptor table");
            ::close(filler.back());
            filler.pop_back();
            RawConnection waiting(port());
            requireInChild(waiting.connected(), "connecting while the table is full");

            rusage before{};
            ::getrusage(RUSAGE_SELF, &before);
            std::this_thread::sleep_for(1s);
            rusage after{};
            ::getrusage(RUSAGE_SELF, &after);
            auto seconds = [](const rusage& usage) {
                return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
            };
            // A loop that retried at once would keep a core busy for the whole second.
            const double busy = seconds(after) - seconds(before);
            requireInChild(busy < 0.5, "the process was busy " + std::to_string(busy) +
                                           " s of the second it could not accept");

            for (int fd : filler) ::close(fd);
            requireInChild(waiting.send(upgradeRequest(port(), "Origin: " + pageA + "\r\n")),
                           "sending the upgrade request");
            const auto answer = waiting.receive(generousTimeout, "hello");
            requireInChild(answer.starts_with("HTTP/1.1 101") &&
                               answer.find("\"type\":\"hello\"") != std::string::npos,
                           "the waiting page admitted after descriptors were freed: " + answer);
            endChild(0, "recovered");
        },
        ::testing::ExitedWithCode(0), "recovered");
}

}  // namespace
}  // namespace velmora::testing
