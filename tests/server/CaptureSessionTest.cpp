// Starting, taking over, stopping and losing the audio stream.
#include <gtest/gtest.h>

#include "ServerFixture.h"
#include "capture/CaptureError.h"
#include "config/AudioKit.h"
#include "config/PlatformTexts.h"

namespace velmora::testing {
namespace {

using nlohmann::json;

const json takenOver = {{"type", "stopped"}, {"reason", "taken_over"}};

json errorMessage(const std::string& code, const std::string& message) {
    return {{"type", "error"}, {"code", code}, {"message", message}};
}

class CaptureSessionTest : public ServerFixture {
  protected:
    void SetUp() override { startServer(timings()); }
    virtual HelperServerTimings timings() { return fastTimings(); }

    bool waitCapturingFor(const std::optional<std::string>& origin) {
        return statuses_.waitFor(
            [&](const HelperStatus& status) { return status.capturingFor == origin; });
    }
};

TEST_F(CaptureSessionTest, ValidStartAsksPermissionThenStreamsFramesOfOneTenthSecond) {
    permission_->setStatus(AudioCapturePermission::Status::unknown);
    auto page = connectPage(pageA);
    startStreaming(*page, pageA);
    EXPECT_EQ(permission_->requestCount(), 1);
    EXPECT_TRUE(waitCapturingFor(pageA));
    ASSERT_TRUE(page->waitForBinaryCount(3));
    for (auto size : page->binarySizes()) EXPECT_EQ(size, 6400u);
    EXPECT_TRUE(log_.waitForLine(
        "Start requested by https://page-a.example; permission preflight: unknown"));
    EXPECT_TRUE(log_.waitForLine("Permission result: granted"));
}

TEST_F(CaptureSessionTest, StartWithoutPassIsRefusedWithPassRequired) {
    auto page = connectPage(pageA);
    ASSERT_FALSE(page->sendText(R"({"type":"start"})"));
    EXPECT_EQ(*page->nextJson(),
              errorMessage("pass_required",
                           "This page needs updating to use Velmora Audio Helper. Reload Velmora "
                           "and try again."));
    EXPECT_TRUE(log_.waitForLine("Start refused for https://page-a.example: no pass"));
    EXPECT_EQ(permission_->requestCount(), 0);
}

TEST_F(CaptureSessionTest, PassThatIsNotTextCountsAsMissing) {
    auto page = connectPage(pageA);
    ASSERT_FALSE(page->sendText(R"({"type":"start","pass":17})"));
    EXPECT_EQ((*page->nextJson())["code"], "pass_required");
}

TEST_F(CaptureSessionTest, InvalidPassIsRefusedAndItsReasonOnlyLogged) {
    auto page = connectPage(pageA);
    // A pass issued for another page.
    ASSERT_FALSE(page->sendText(startMessage(pageB)));
    EXPECT_EQ(*page->nextJson(),
              errorMessage("pass_invalid",
                           "Velmora Audio Helper couldn't confirm this Velmora page. Check that "
                           "your computer's clock is right, then reload Velmora and try again."));
    EXPECT_TRUE(log_.waitForLine("Start refused for https://page-a.example: pass origin"));
    EXPECT_EQ(permission_->requestCount(), 0);
}

TEST_F(CaptureSessionTest, PassCannotBeUsedTwice) {
    auto page = connectPage(pageA);
    std::string start = startMessage(pageA);
    ASSERT_FALSE(page->sendText(start));
    EXPECT_EQ((*page->nextJson())["type"], "started");
    ASSERT_FALSE(page->sendText(start));
    EXPECT_EQ((*page->nextJson())["code"], "pass_invalid");
    EXPECT_TRUE(log_.waitForLine("Start refused for https://page-a.example: pass used"));
}

TEST_F(CaptureSessionTest, RefusedStartLeavesTheStreamingPageStreaming) {
    auto streaming = connectPage(pageA);
    auto other = connectPage(pageB);
    startStreaming(*streaming, pageA);
    ASSERT_FALSE(other->sendText(R"({"type":"start","pass":"not.valid"})"));
    EXPECT_EQ((*other->nextJson())["code"], "pass_invalid");
    int frames = streaming->binaryCount();
    EXPECT_TRUE(streaming->waitForBinaryCount(frames + 2));
    expectPong(*streaming);  // no "taken_over" came before the pong
    EXPECT_EQ(server_->status().capturingFor, pageA);
    EXPECT_EQ(other->binaryCount(), 0);
}

TEST_F(CaptureSessionTest, TakeOverWhileStreamingMovesTheStreamWithoutAskingAgain) {
    auto first = connectPage(pageA);
    auto second = connectPage(pageB);
    startStreaming(*first, pageA);
    ASSERT_TRUE(first->waitForBinaryCount(1));

    startStreaming(*second, pageB);
    EXPECT_EQ(*first->nextJson(), takenOver);
    EXPECT_TRUE(waitCapturingFor(pageB));
    EXPECT_TRUE(second->waitForBinaryCount(3));
    EXPECT_EQ(permission_->requestCount(), 1);
    EXPECT_EQ(tap_->startIOCalls(), 1);
    // The first page gets no more audio.
    expectPong(*first);
    int frames = first->binaryCount();
    ASSERT_TRUE(second->waitForBinaryCount(second->binaryCount() + 3));
    EXPECT_EQ(first->binaryCount(), frames);
}

TEST_F(CaptureSessionTest, FramesGoOnlyToTheActivePage) {
    auto active = connectPage(pageA);
    auto bystander = connectPage(pageB);
    startStreaming(*active, pageA);
    ASSERT_TRUE(active->waitForBinaryCount(5));
    expectPong(*bystander);
    EXPECT_EQ(bystander->binaryCount(), 0);
}

TEST_F(CaptureSessionTest, FramesWithoutAnActivePageAreDropped) {
    auto page = connectPage(pageA);
    server_->sendFrame(SystemAudioCapture::Frame(6400));
    expectPong(*page);
    EXPECT_EQ(page->binaryCount(), 0);
}

TEST_F(CaptureSessionTest, StartTwiceFromTheSamePageAnswersStartedTwiceAndRestartsPolling) {
    auto page = connectPage(pageA);
    startStreaming(*page, pageA);
    ASSERT_TRUE(microphoneUsers_->waitForQueries(1));
    startStreaming(*page, pageA);
    int queries = microphoneUsers_->queryCount();
    EXPECT_TRUE(microphoneUsers_->waitForQueries(queries + 1));
    expectPong(*page);  // nothing else (no "taken_over") came in between
    EXPECT_EQ(permission_->requestCount(), 1);
    EXPECT_EQ(server_->status().capturingFor, pageA);
}

TEST_F(CaptureSessionTest, StopEndsTheStreamAndAnswersStopped) {
    auto page = connectPage(pageA);
    startStreaming(*page, pageA);
    ASSERT_TRUE(page->waitForBinaryCount(1));
    ASSERT_FALSE(page->sendText(R"({"type":"stop"})"));
    EXPECT_EQ(page->nextText(), R"({"type":"stopped"})");
    EXPECT_TRUE(waitCapturingFor(std::nullopt));
    EXPECT_FALSE(tap_->isIORunning());
    int frames = page->binaryCount();
    expectPong(*page);
    EXPECT_EQ(page->binaryCount(), frames);
}

TEST_F(CaptureSessionTest, ActivePageDisconnectingWhileStreamingStopsCaptureSilently) {
    auto page = connectPage(pageA);
    auto other = connectPage(pageB);
    startStreaming(*page, pageA);
    ASSERT_TRUE(waitCapturingFor(pageA));
    page->abort();
    EXPECT_TRUE(waitCapturingFor(std::nullopt));
    EXPECT_TRUE(statuses_.waitFor([](const HelperStatus& status) { return status.clients == 1; }));
    EXPECT_FALSE(tap_->isIORunning());
    expectPong(*other);
    EXPECT_EQ(other->binaryCount(), 0);
}

TEST_F(CaptureSessionTest, PermissionDeniedIsReportedOnceAndKeptInTheStatus) {
    permission_->answerAtOnce(false);
    auto page = connectPage(pageA);
    ASSERT_FALSE(page->sendText(startMessage(pageA)));
    const std::string text = CaptureError::permissionDenied().message();
    EXPECT_EQ(*page->nextJson(), errorMessage("permission_denied", text));
    EXPECT_TRUE(log_.waitForLine("Permission result: denied"));
    EXPECT_TRUE(log_.waitForLine("Start failed: permission_denied \u2014 " + text));
    EXPECT_TRUE(
        statuses_.waitFor([](const HelperStatus& status) { return status.permissionDenied; }));
    EXPECT_EQ(tap_->startIOCalls(), 0);

    // Kept after the page has gone, until a start succeeds.
    page->abort();
    ASSERT_TRUE(statuses_.waitFor([](const HelperStatus& status) { return status.clients == 0; }));
    EXPECT_TRUE(statuses_.latest()->permissionDenied);
    permission_->answerAtOnce(true);
    auto again = connectPage(pageA);
    startStreaming(*again, pageA);
    EXPECT_TRUE(statuses_.waitFor([](const HelperStatus& status) {
        return !status.permissionDenied && status.capturingFor == pageA;
    }));
}

TEST_F(CaptureSessionTest, CaptureStartFailureIsADeviceErrorKeptAsLastError) {
    tap_->failCreateTap(1);
    auto page = connectPage(pageA);
    ASSERT_FALSE(page->sendText(startMessage(pageA)));
    auto answer = page->nextJson();
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)["code"], "device_error");
    const std::string text = (*answer)["message"];
    EXPECT_FALSE(text.empty());
    EXPECT_TRUE(log_.waitForLine("Start failed: device_error \u2014 " + text));
    EXPECT_TRUE(statuses_.waitFor([&](const HelperStatus& status) {
        return status.lastError == text && !status.permissionDenied && !status.capturingFor;
    }));
    // The page is not active: a stop changes nothing, and the next start succeeds and clears
    // the error.
    startStreaming(*page, pageA);
    EXPECT_TRUE(statuses_.waitFor([](const HelperStatus& status) {
        return !status.lastError && status.capturingFor == pageA;
    }));
}

TEST_F(CaptureSessionTest, CaptureRefusedAccessIsPermissionDenied) {
    tap_->refuseAccess(1);
    auto page = connectPage(pageA);
    ASSERT_FALSE(page->sendText(startMessage(pageA)));
    const std::string text = CaptureError::permissionDenied().message();
    EXPECT_EQ(*page->nextJson(), errorMessage("permission_denied", text));
    EXPECT_TRUE(statuses_.waitFor([&](const HelperStatus& status) {
        return status.permissionDenied && status.lastError == text;
    }));
}

TEST_F(CaptureSessionTest, CaptureFailureWhileStreamingIsOneDeviceErrorAndStaysAsLastError) {
    auto page = connectPage(pageA);
    startStreaming(*page, pageA);
    ASSERT_TRUE(page->waitForBinaryCount(1));
    // The output device changes and the capture cannot be rebuilt on it.
    tap_->failCreateTap();
    tap_->announceDefaultOutputChange();

    auto answer = page->nextJson();
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)["type"], "error");
    EXPECT_EQ((*answer)["code"], "device_error");
    const std::string text = (*answer)["message"];
    EXPECT_TRUE(log_.waitForLine("Capture failed: " + text));
    EXPECT_TRUE(statuses_.waitFor([&](const HelperStatus& status) {
        return status.lastError == text && !status.capturingFor;
    }));
    // No longer active: the page must start again; no second error arrives.
    expectPong(*page);
    ASSERT_FALSE(page->sendText(R"({"type":"stop"})"));
    EXPECT_EQ(page->nextText(), R"({"type":"stopped"})");

    tap_->clearFailures();
    startStreaming(*page, pageA);
    EXPECT_TRUE(statuses_.waitFor([](const HelperStatus& status) {
        return !status.lastError && status.capturingFor == pageA;
    }));
}

// ---------------------------------------------------------------------------------------------
// While the permission is being asked for

class PermissionWaitTest : public CaptureSessionTest {
  protected:
    void SetUp() override {
        permission_->holdRequests();
        CaptureSessionTest::SetUp();
    }
};

class PermissionTimeoutTest : public PermissionWaitTest {
  protected:
    HelperServerTimings timings() override {
        auto timings = fastTimings();
        timings.permissionTimeout = std::chrono::milliseconds(300);
        return timings;
    }
};

TEST_F(PermissionWaitTest, TakeOverDuringThePermissionWaitMakesOneRequestOnly) {
    auto first = connectPage(pageA);
    auto second = connectPage(pageB);
    ASSERT_FALSE(first->sendText(startMessage(pageA)));
    ASSERT_TRUE(permission_->waitForRequests(1));
    ASSERT_FALSE(second->sendText(startMessage(pageB)));
    EXPECT_EQ(*first->nextJson(), takenOver);
    expectPong(*second);
    EXPECT_EQ(permission_->requestCount(), 1);

    EXPECT_EQ(permission_->answerHeld(true), 1);
    EXPECT_EQ(second->nextText(), R"({"type":"started"})");
    EXPECT_TRUE(waitCapturingFor(pageB));
    expectPong(*first);
}

TEST_F(PermissionWaitTest, StopDuringThePermissionWaitMeansTheAnswerStartsNothing) {
    auto page = connectPage(pageA);
    ASSERT_FALSE(page->sendText(startMessage(pageA)));
    ASSERT_TRUE(permission_->waitForRequests(1));
    ASSERT_FALSE(page->sendText(R"({"type":"stop"})"));
    EXPECT_EQ(page->nextText(), R"({"type":"stopped"})");
    permission_->answerHeld(true);
    EXPECT_TRUE(log_.waitForLine("Permission result: granted"));
    expectPong(*page);
    EXPECT_EQ(tap_->startIOCalls(), 0);
    EXPECT_FALSE(server_->status().capturingFor);
}

TEST_F(PermissionTimeoutTest, NoAnswerInTimeGivesPermissionTimeoutAndALateAnswerIsIgnored) {
    auto page = connectPage(pageA);
    ASSERT_FALSE(page->sendText(startMessage(pageA)));
    ASSERT_TRUE(permission_->waitForRequests(1));
    const std::string text = PlatformTexts::current().permissionTimeout(AudioKit::config().appName);
    EXPECT_EQ(*page->nextJson(), errorMessage("permission_timeout", text));
    EXPECT_EQ(text,
              "Your desktop is still waiting for you to allow \"System Audio Recording\" for "
              "Velmora Audio Helper. Answer the prompt, then try again.");

    permission_->answerHeld(true);
    EXPECT_TRUE(log_.waitForLine("Permission result: granted"));
    expectPong(*page);
    EXPECT_EQ(tap_->startIOCalls(), 0);
    EXPECT_FALSE(server_->status().capturingFor);
}

TEST_F(PermissionTimeoutTest, AfterATimeOutTheNextStartAsksAgain) {
    auto page = connectPage(pageA);
    ASSERT_FALSE(page->sendText(startMessage(pageA)));
    EXPECT_EQ((*page->nextJson())["code"], "permission_timeout");
    permission_->answerAtOnce(true);
    startStreaming(*page, pageA);
    EXPECT_EQ(permission_->requestCount(), 2);
}

TEST_F(PermissionWaitTest, ActivePageLeavingDuringTheWaitMeansTheAnswerStartsNothing) {
    auto page = connectPage(pageA);
    auto other = connectPage(pageB);
    ASSERT_FALSE(page->sendText(startMessage(pageA)));
    ASSERT_TRUE(permission_->waitForRequests(1));
    page->abort();
    ASSERT_TRUE(statuses_.waitFor([](const HelperStatus& status) { return status.clients == 1; }));
    permission_->answerHeld(true);
    EXPECT_TRUE(log_.waitForLine("Permission result: granted"));
    expectPong(*other);
    EXPECT_EQ(tap_->startIOCalls(), 0);
}

}  // namespace
}  // namespace velmora::testing
