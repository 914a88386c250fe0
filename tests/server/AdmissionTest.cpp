// Which pages get in, how they are counted, and what happens to peers that are not pages.
#include <gtest/gtest.h>

#include "RawConnection.h"
#include "ServerFixture.h"

namespace velmora::testing {
namespace {

class AdmissionTest : public ServerFixture {
  protected:
    void SetUp() override { startServer(); }

    bool everCounted() {
        settleStatuses();
        for (const auto& status : statuses_.history()) {
            if (status.clients > 0) return true;
        }
        return false;
    }
};

TEST_F(AdmissionTest, AllowedOriginIsGreetedCountedAndLogged) {
    auto page = connectPage(pageA);
    ASSERT_TRUE(page);
    EXPECT_TRUE(statuses_.waitFor([](const HelperStatus& status) { return status.clients == 1; }));
    EXPECT_TRUE(log_.waitForLine("Client connected (https://page-a.example)"));
}

TEST_F(AdmissionTest, RefusedOriginIsRejectedLoggedAndNeverCounted) {
    auto opening = TestPage::open(network_, port(), {.origin = refusedOrigin});
    EXPECT_FALSE(opening.page);
    EXPECT_EQ(opening.httpStatus, 403);
    EXPECT_TRUE(log_.waitForLine("Rejected connection from origin https://elsewhere.example"));
    EXPECT_FALSE(everCounted());
}

TEST_F(AdmissionTest, AbsentOriginIsRefusedWhenThePolicyRefusesItAndTheLogSaysNone) {
    allowAbsentOrigin(false);
    auto opening = TestPage::open(network_, port(), {.origin = std::nullopt});
    EXPECT_FALSE(opening.page);
    EXPECT_EQ(opening.httpStatus, 403);
    EXPECT_TRUE(log_.waitForLine("Rejected connection from origin (none)"));
    EXPECT_FALSE(everCounted());
}

TEST_F(AdmissionTest, AbsentOriginIsAdmittedWhenThePolicyAllowsIt) {
    allowAbsentOrigin(true);
    auto page = connectPage(std::nullopt);
    ASSERT_TRUE(page);
    EXPECT_TRUE(log_.waitForLine("Client connected ()"));
    EXPECT_TRUE(statuses_.waitFor([](const HelperStatus& status) { return status.clients == 1; }));
}

TEST_F(AdmissionTest, OriginHeaderNameIsMatchedWithoutCaseAndTheFirstOneCounts) {
    RawConnection connection(port());
    ASSERT_TRUE(connection.connected());
    connection.send(upgradeRequest(
        port(), "oRiGiN: https://page-a.example\r\nOrigin: https://elsewhere.example\r\n"));
    auto answer = connection.receive(generousTimeout, "\r\n\r\n");
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 101")) << answer;
    EXPECT_TRUE(log_.waitForLine("Client connected (https://page-a.example)"));

    RawConnection refused(port());
    refused.send(upgradeRequest(
        port(), "ORIGIN: https://elsewhere.example\r\nOrigin: https://page-a.example\r\n"));
    EXPECT_TRUE(refused.receive(generousTimeout, "\r\n\r\n").starts_with("HTTP/1.1 403"));
    EXPECT_TRUE(refused.waitForClose());
}

TEST_F(AdmissionTest, UpgradeAnswerCarriesNoExtraHeaders) {
    RawConnection connection(port());
    connection.send(upgradeRequest(port(), "Origin: https://page-a.example\r\n"));
    auto answer = connection.receive(generousTimeout, "\r\n\r\n");
    auto head = answer.substr(0, answer.find("\r\n\r\n") + 2);
    EXPECT_TRUE(head.starts_with("HTTP/1.1 101")) << head;
    // The one header beyond the upgrade's own names the helper, not a library and its version.
    EXPECT_NE(head.find("\r\nServer: velmora-audio-helper\r\n"), std::string::npos) << head;
    EXPECT_EQ(head.find("Sec-WebSocket-Protocol"), std::string::npos) << head;
    EXPECT_EQ(head.find("Sec-WebSocket-Extensions"), std::string::npos) << head;
}

TEST_F(AdmissionTest, ConnectFollowedByImmediateDisconnectPublishesOneThenZero) {
    auto page = connectPage(pageA);
    page->abort();
    // The latest status may still be the one from before the connection was counted: wait for
    // the server to have seen the page go, then for every status it published to arrive.
    ASSERT_TRUE(log_.waitForLine("Client disconnected (https://page-a.example)"));
    settleStatuses();
    std::vector<int> counts;
    for (const auto& status : statuses_.history()) {
        if (counts.empty() || counts.back() != status.clients) counts.push_back(status.clients);
    }
    EXPECT_EQ(counts, (std::vector<int>{0, 1, 0}));
}

TEST_F(AdmissionTest, PageClosingNormallyIsLoggedAsDisconnected) {
    auto page = connectPage(pageB);
    page->close();
    EXPECT_TRUE(log_.waitForLine("Client disconnected (https://page-b.example)"));
    EXPECT_TRUE(statuses_.waitFor([](const HelperStatus& status) { return status.clients == 0; }));
}

TEST_F(AdmissionTest, TwoStatusChangesEndingAtTheSameValuePublishNothing) {
    permission_->answerAtOnce(false);
    auto page = connectPage(pageA);
    ASSERT_FALSE(page->sendText(startMessage(pageA)));
    EXPECT_EQ((*page->nextJson())["code"], "permission_denied");
    settleStatuses();
    auto published = statuses_.history().size();
    // The same refusal again sets the same field to the same value; a stop while idle clears
    // what is already clear.
    ASSERT_FALSE(page->sendText(startMessage(pageA)));
    EXPECT_EQ((*page->nextJson())["code"], "permission_denied");
    ASSERT_FALSE(page->sendText(R"({"type":"stop"})"));
    EXPECT_EQ((*page->nextJson())["type"], "stopped");
    settleStatuses();
    EXPECT_EQ(statuses_.history().size(), published);
    auto history = statuses_.history();
    for (std::size_t i = 1; i < history.size(); ++i) EXPECT_NE(history[i], history[i - 1]);
}

TEST_F(AdmissionTest, PlainHttpRequestGets426AndChangesNothing) {
    settleStatuses();
    auto published = statuses_.history().size();
    RawConnection connection(port());
    connection.send("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: https://page-a.example\r\n\r\n");
    auto answer = connection.receive(generousTimeout, "\r\n\r\n");
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 426")) << answer;
    EXPECT_TRUE(connection.waitForClose());
    settleStatuses();
    EXPECT_EQ(statuses_.history().size(), published);
    for (const auto& line : log_.lines())
        EXPECT_FALSE(line.starts_with("Client connected")) << line;
}

TEST_F(AdmissionTest, MalformedRequestGets400AndIsClosed) {
    RawConnection connection(port());
    connection.send("NOT HTTP AT ALL\r\n\r\n");
    auto answer = connection.receive(generousTimeout, "\r\n\r\n");
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 400")) << answer;
    EXPECT_TRUE(connection.waitForClose());
}

TEST_F(AdmissionTest, HeadersOver8KiBAreRefusedAndClosed) {
    RawConnection connection(port());
    connection.send(upgradeRequest(
        port(), "Origin: https://page-a.example\r\nX-Filler: " + std::string(9000, 'x') + "\r\n"));
    auto answer = connection.receive(generousTimeout, "\r\n\r\n");
    EXPECT_FALSE(answer.starts_with("HTTP/1.1 101")) << answer.substr(0, 40);
    EXPECT_TRUE(connection.waitForClose());
    EXPECT_FALSE(everCounted());
}

TEST_F(AdmissionTest, HeadersJustUnder8KiBAreAccepted) {
    RawConnection connection(port());
    std::string request = upgradeRequest(port(), "Origin: https://page-a.example\r\n");
    std::string filler = "X-Filler: " + std::string(8000 - request.size(), 'x') + "\r\n";
    connection.send(upgradeRequest(port(), "Origin: https://page-a.example\r\n" + filler));
    EXPECT_TRUE(connection.receive(generousTimeout, "\r\n\r\n").starts_with("HTTP/1.1 101"));
}

}  // namespace
}  // namespace velmora::testing
