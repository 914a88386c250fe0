// What a page sees of the protocol: the greeting, replies to its commands and their errors.
#include <gtest/gtest.h>

#include "ServerFixture.h"
#include "config/AudioKit.h"
#include "config/HelperInfo.h"

namespace velmora::testing {
namespace {

using nlohmann::json;

class ProtocolTest : public ServerFixture {
  protected:
    void SetUp() override { startServer(); }

    json errorMessage(const std::string& code, const std::string& message) {
        return {{"type", "error"}, {"code", code}, {"message", message}};
    }
};

TEST_F(ProtocolTest, HelloAnnouncesTheFormatAndHasNoProductWithoutOne) {
    auto opening = TestPage::open(network_, port(), {.origin = pageA});
    ASSERT_TRUE(opening.page) << opening.error.message();
    auto text = opening.page->nextText();
    ASSERT_TRUE(text);
    auto hello = json::parse(*text);
    EXPECT_EQ(hello, json({{"type", "hello"},
                           {"app", "velmora-audio-helper"},
                           {"version", HelperInfo::version()},
                           {"platform", "linux"},
                           {"sampleRate", 16000},
                           {"channels", 1},
                           {"format", "f32le"}}));
    EXPECT_FALSE(hello.contains("product"));
    // Integers without a fraction, compact serialisation.
    EXPECT_NE(text->find(R"("sampleRate":16000)"), std::string::npos) << *text;
    EXPECT_NE(text->find(R"("channels":1)"), std::string::npos) << *text;
    EXPECT_EQ(text->find('\n'), std::string::npos);
    EXPECT_EQ(text->find(": "), std::string::npos);
}

TEST_F(ProtocolTest, HelloCarriesTheProductWhenConfigured) {
    AudioKit::modifyConfig([](AudioKitConfig& config) { config.product = "meetings"; });
    auto page = TestPage::open(network_, port(), {.origin = pageA}).page;
    ASSERT_TRUE(page);
    auto hello = page->nextJson();
    ASSERT_TRUE(hello);
    EXPECT_EQ(hello->size(), 8u);
    EXPECT_EQ((*hello)["product"], "meetings");
}

TEST_F(ProtocolTest, HelloComesFirst) {
    auto page = TestPage::open(network_, port(), {.origin = pageA}).page;
    ASSERT_TRUE(page);
    ASSERT_FALSE(page->sendText(R"({"type":"ping"})"));
    EXPECT_EQ((*page->nextJson())["type"], "hello");
    EXPECT_EQ((*page->nextJson())["type"], "pong");
}

TEST_F(ProtocolTest, PingIsAnsweredWithPong) {
    auto page = connectPage();
    ASSERT_FALSE(page->sendText(R"({"type":"ping"})"));
    auto text = page->nextText();
    EXPECT_EQ(text, R"({"type":"pong"})");
}

TEST_F(ProtocolTest, EmptyObjectIsABadRequest) {
    auto page = connectPage();
    ASSERT_FALSE(page->sendText("{}"));
    EXPECT_EQ(*page->nextJson(),
              errorMessage("bad_request", "Expected a JSON message with a type"));
}

TEST_F(ProtocolTest, ArrayNumberInvalidJsonAndNumericTypeAreBadRequests) {
    auto page = connectPage();
    for (const char* text : {"[]", "42", "{\"type\":", R"({"type": 5})", "not json"}) {
        ASSERT_FALSE(page->sendText(text));
        auto answer = page->nextJson();
        ASSERT_TRUE(answer) << text;
        EXPECT_EQ(*answer, errorMessage("bad_request", "Expected a JSON message with a type"))
            << text;
    }
}

TEST_F(ProtocolTest, UppercasePingIsAnUnknownMessageType) {
    auto page = connectPage();
    ASSERT_FALSE(page->sendText(R"({"type":"PING"})"));
    EXPECT_EQ(*page->nextJson(), errorMessage("bad_request", "Unknown message type PING"));
}

TEST_F(ProtocolTest, BadRequestsChangeNothing) {
    auto page = connectPage();
    settleStatuses();
    auto before = statuses_.history().size();
    ASSERT_FALSE(page->sendText(R"({"type":"record"})"));
    EXPECT_EQ(*page->nextJson(), errorMessage("bad_request", "Unknown message type record"));
    settleStatuses();
    EXPECT_EQ(statuses_.history().size(), before);
    EXPECT_EQ(permission_->requestCount(), 0);
}

TEST_F(ProtocolTest, BinaryMessageFromThePageIsIgnoredAndTheConnectionStaysOpen) {
    auto page = connectPage();
    ASSERT_FALSE(page->sendBinary(std::string(6400, '\x01')));
    expectPong(*page);
    EXPECT_FALSE(page->isClosed());
}

TEST_F(ProtocolTest, StopFromAPageThatIsNotActiveGetsStopped) {
    auto page = connectPage();
    ASSERT_FALSE(page->sendText(R"({"type":"stop"})"));
    EXPECT_EQ(page->nextText(), R"({"type":"stopped"})");
    EXPECT_EQ(tap_->startIOCalls(), 0);
}

TEST_F(ProtocolTest, MessageOf64KiBIsAccepted) {
    auto page = connectPage();
    std::string text = R"({"type":"ping","padding":")";
    text += std::string(65536 - text.size() - 2, 'x');
    text += "\"}";
    ASSERT_EQ(text.size(), 65536u);
    ASSERT_FALSE(page->sendText(text));
    EXPECT_EQ(page->nextText(), R"({"type":"pong"})");
}

TEST_F(ProtocolTest, MessageLargerThan64KiBDropsTheClient) {
    auto page = connectPage();
    ASSERT_TRUE(statuses_.waitFor([](const HelperStatus& status) { return status.clients == 1; }));
    ASSERT_FALSE(page->sendText(std::string(65537, ' ')));
    EXPECT_TRUE(page->waitClosed());
    EXPECT_EQ(page->closeCode(), 1009);  // message too big
    EXPECT_TRUE(statuses_.waitFor([](const HelperStatus& status) { return status.clients == 0; }));
    auto line = log_.waitForLineStarting("Receive error: ");
    EXPECT_TRUE(line);
}

}  // namespace
}  // namespace velmora::testing
