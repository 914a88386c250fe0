#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "TestPage.h"
#include "config/SerialQueue.h"
#include "server/HelperServer.h"
#include "support/FakeAudioTap.h"
#include "support/FakeCapturePermission.h"
#include "support/FakeMicrophoneUsers.h"
#include "support/FreePort.h"
#include "support/PassSigner.h"

namespace velmora::testing {

// Every status the server publishes, in order, as the main queue receives them.
class StatusRecorder {
  public:
    void record(const HelperStatus& status);
    std::vector<HelperStatus> history();
    std::optional<HelperStatus> latest();
    // Waits until the latest published status satisfies the condition.
    bool waitFor(const std::function<bool(const HelperStatus&)>& condition,
                 std::chrono::milliseconds timeout = generousTimeout);

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<HelperStatus> history_;
};

// The log lines written since the reader was made.
class LogReader {
  public:
    LogReader();
    // Every message (time stamp removed) logged since construction, once written to the file.
    std::vector<std::string> lines();
    // Waits until a line equal to `line` has been logged.
    bool waitForLine(const std::string& line, std::chrono::milliseconds timeout = generousTimeout);
    // Waits until a line starting with `prefix` has been logged, and returns it.
    std::optional<std::string> waitForLineStarting(
        const std::string& prefix, std::chrono::milliseconds timeout = generousTimeout);
    int count(const std::string& line);

  private:
    std::uintmax_t start_ = 0;
};

// Origins of the pages in these tests: the ones starting "https://page" are allowed.
inline const std::string pageA = "https://page-a.example";
inline const std::string pageB = "https://page-b.example";
inline const std::string pageC = "https://page-c.example";
inline const std::string refusedOrigin = "https://elsewhere.example";

// A helper server on a free port with a fake tap, permission and microphone users, and pages
// that connect to it over real sockets.
class ServerFixture : public ::testing::Test {
  protected:
    ServerFixture();
    void TearDown() override;

    // Short delays so the timed behaviour runs in milliseconds.
    static HelperServerTimings fastTimings();

    // Creates the server with these timings and the test's pass key; does not start it.
    void createServer(HelperServerTimings timings = fastTimings());
    // Creates (if needed) and starts the server, and waits until it listens.
    void startServer(HelperServerTimings timings = fastTimings());

    // Opens a page and takes its "hello".
    std::shared_ptr<TestPage> connectPage(const std::optional<std::string>& origin = pageA,
                                          PageOptions options = {});
    // A valid start message for a page of this origin.
    std::string startMessage(const std::string& origin);
    // Sends a valid start and expects "started".
    void startStreaming(TestPage& page, const std::string& origin);

    // Waits until the main queue has delivered every status published so far.
    void settleStatuses();
    // Round trip through the server's queue: everything the page sent before has been handled.
    void expectPong(TestPage& page);

    // The server's port (as setPort leaves it) and origins (those starting "https://page", and
    // no origin at all when allowAbsentOrigin says so), read anew at every use.
    ServerPolicy policy();
    std::uint16_t port() const { return port_; }
    void setPort(std::uint16_t port) { port_ = port; }
    void allowAbsentOrigin(bool allow) { allowAbsentOrigin_ = allow; }

    SerialQueue mainQueue_{"com.velmora.tests.main"};
    std::shared_ptr<FakeCapturePermission> permission_ = std::make_shared<FakeCapturePermission>();
    std::shared_ptr<FakeMicrophoneUsers> microphoneUsers_ = std::make_shared<FakeMicrophoneUsers>();
    std::shared_ptr<FakeAudioTap::Control> tap_ = std::make_shared<FakeAudioTap::Control>();
    // Who holds the pages' ends: the system's own answer unless a test sets another first.
    std::shared_ptr<PeerOwnerLookup> peerOwners_ = PeerOwnerLookup::platform();
    PassSigner signer_ = PassSigner::generate();
    StatusRecorder statuses_;
    LogReader log_;
    PageNetwork network_;
    std::shared_ptr<HelperServer> server_;

  private:
    std::atomic<std::uint16_t> port_;
    std::atomic<bool> allowAbsentOrigin_{false};
};

}  // namespace velmora::testing
