// Peers that are slow, silent, dead or greedy, and many pages at once: none of them may disturb
// the other pages.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "RawConnection.h"
#include "ServerFixture.h"

namespace velmora::testing {
namespace {

class HostilePeerTest : public ServerFixture {};

TEST_F(HostilePeerTest, TwoHundredPagesConnectedAtOnceAllGetHello) {
    constexpr int pageCount = 200;
    // Every page here lives in this one process, which would otherwise meet its own cap.
    auto timings = fastTimings();
    timings.limits.maxConnectionsPerProcess = pageCount;
    startServer(timings);
    // Opened in waves that stay below the limit of connections in their upgrade phase.
    constexpr int wave = 40;
    std::vector<std::shared_ptr<TestPage>> pages;
    for (int first = 0; first < pageCount; first += wave) {
        std::vector<std::future<TestPage::Opening>> openings;
        for (int i = first; i < first + wave; ++i) {
            auto promise = std::make_shared<std::promise<TestPage::Opening>>();
            openings.push_back(promise->get_future());
            TestPage::openAsync(
                network_, port(), {.origin = pageA},
                [promise](TestPage::Opening opening) { promise->set_value(std::move(opening)); });
        }
        for (auto& opening : openings) {
            ASSERT_EQ(opening.wait_for(generousTimeout), std::future_status::ready);
            auto result = opening.get();
            ASSERT_TRUE(result.page) << result.error.message();
            pages.push_back(result.page);
        }
    }
    for (auto& page : pages) {
        auto hello = page->nextJson();
        ASSERT_TRUE(hello);
        EXPECT_EQ((*hello)["type"], "hello");
    }
    EXPECT_TRUE(
        statuses_.waitFor([&](const HelperStatus& status) { return status.clients == pageCount; }));
    expectPong(*pages.front());
    expectPong(*pages.back());
}

TEST_F(HostilePeerTest, TwentySilentHalfOpenSocketsDelayNobody) {
    startServer();  // the real handshake time of 10 s
    std::vector<std::unique_ptr<RawConnection>> silent;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(std::make_unique<RawConnection>(port()));
        ASSERT_TRUE(silent.back()->connected());
        if (i % 2 == 0) silent.back()->send("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n");
    }
    auto page = connectPage(pageA);
    ASSERT_TRUE(page);
    expectPong(*page);
    // The page was served while every silent socket was still waiting for its time-out.
    for (auto& connection : silent) EXPECT_FALSE(connection->closedByPeer());
}

TEST_F(HostilePeerTest, IncompleteUpgradeRequestIsClosedWhenTheHandshakeTimeRunsOut) {
    auto timings = fastTimings();
    timings.limits.handshakeTimeout = std::chrono::milliseconds(300);
    startServer(timings);
    RawConnection silent(port());
    RawConnection trickling(port());
    trickling.send("GET / HTTP/1.1\r\n");
    EXPECT_TRUE(silent.waitForClose());
    EXPECT_TRUE(trickling.waitForClose());
    settleStatuses();
    for (const auto& status : statuses_.history()) EXPECT_EQ(status.clients, 0);
}

TEST_F(HostilePeerTest, ConnectionsBeyondTheUpgradeLimitAreClosedAtOnce) {
    startServer();
    constexpr int limit = 64;
    std::vector<std::unique_ptr<RawConnection>> silent;
    for (int i = 0; i < limit; ++i) {
        silent.push_back(std::make_unique<RawConnection>(port()));
        ASSERT_TRUE(silent.back()->connected());
    }
    RawConnection extra(port());
    ASSERT_TRUE(extra.connected());
    // Closed long before the handshake time of 10 s would close it.
    EXPECT_TRUE(extra.waitForClose(std::chrono::seconds(5)));
    for (auto& connection : silent) EXPECT_FALSE(connection->closedByPeer());

    // Once the silent ones are gone, pages get in again.
    silent.clear();
    std::shared_ptr<TestPage> page;
    for (int attempt = 0; attempt < 200 && !page; ++attempt) {
        page = TestPage::open(network_, port(), {.origin = pageA}).page;
        if (!page) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(page);
    EXPECT_EQ((*page->nextJson())["type"], "hello");
}

TEST_F(HostilePeerTest, DeadPeerIsDroppedByKeepAlivePingsAndLivePagesStay) {
    auto timings = fastTimings();
    timings.limits.idleTimeout = std::chrono::milliseconds(400);
    startServer(timings);
    auto live = connectPage(pageA);
    // Completes the upgrade, then neither reads nor writes: it never answers a ping.
    RawConnection dead(port());
    dead.send(upgradeRequest(port(), "Origin: https://page-b.example\r\n"));
    ASSERT_TRUE(dead.receive(generousTimeout, "\r\n\r\n").starts_with("HTTP/1.1 101"));
    ASSERT_TRUE(statuses_.waitFor([](const HelperStatus& status) { return status.clients == 2; }));

    EXPECT_TRUE(statuses_.waitFor([](const HelperStatus& status) { return status.clients == 1; }));
    EXPECT_TRUE(dead.waitForClose());
    EXPECT_TRUE(log_.waitForLineStarting("Receive error: "));
    // The live page has been idle for longer than the idle time as well; its pongs kept it.
    expectPong(*live);
    EXPECT_FALSE(live->isClosed());
}

TEST_F(HostilePeerTest, PageThatStopsReadingIsDroppedWhileTheStreamToAnotherContinues) {
    auto timings = fastTimings();
    // Small kernel buffers so the backlog builds up after a few kilobytes.
    timings.limits.socketSendBufferBytes = 4096;
    startServer(timings);
    auto listener = connectPage(pageA);
    startStreaming(*listener, pageA);
    ASSERT_TRUE(listener->waitForBinaryCount(2));

    auto greedy = connectPage(pageB, {.receiveBufferBytes = 4096});
    greedy->stopReading();
    // It keeps asking and never reads the answers.
    for (int sent = 0; sent < 200'000; ++sent) {
        if (greedy->sendText(R"({"type":"ping"})", std::chrono::seconds(5))) break;
        if (sent % 500 == 0 && log_.count("Dropped client (https://page-b.example): it stopped "
                                          "reading what it is sent") > 0) {
            break;
        }
    }
    EXPECT_TRUE(log_.waitForLine(
        "Dropped client (https://page-b.example): it stopped reading what it is sent"));
    EXPECT_TRUE(statuses_.waitFor([](const HelperStatus& status) { return status.clients == 1; }));

    int frames = listener->binaryCount();
    EXPECT_TRUE(listener->waitForBinaryCount(frames + 3));
    EXPECT_EQ(server_->status().capturingFor, pageA);
    expectPong(*listener);
}

TEST_F(HostilePeerTest, ActivePageThatStopsReadingIsDroppedAndCaptureStops) {
    auto timings = fastTimings();
    timings.limits.socketSendBufferBytes = 4096;
    startServer(timings);
    auto page = connectPage(pageA, {.receiveBufferBytes = 4096});
    startStreaming(*page, pageA);
    page->stopReading();
    // Frames faster than any page reads them.
    for (int frame = 0; frame < 20'000; ++frame) {
        server_->sendFrame(SystemAudioCapture::Frame(6400));
        if (frame % 100 == 0 && server_->status().clients == 0) break;
    }
    EXPECT_TRUE(log_.waitForLine(
        "Dropped client (https://page-a.example): it stopped reading what it is sent"));
    EXPECT_TRUE(statuses_.waitFor(
        [](const HelperStatus& status) { return status.clients == 0 && !status.capturingFor; }));
    EXPECT_FALSE(tap_->isIORunning());
}

}  // namespace
}  // namespace velmora::testing
