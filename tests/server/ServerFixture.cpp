#include "ServerFixture.h"
#include "support/FreePort.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "config/AudioKit.h"
#include "config/Log.h"
#include "config/LogFile.h"
#include "config/TemporaryFolder.h"

namespace velmora::testing {
namespace {

// Before main(), so before the first log line: the log goes to a private folder.
const PrivateUserFolders privateUserFolders;

std::filesystem::path logPath() {
    return LogFile::defaultFolder() / AudioKit::config().logFileName;
}

// Strips "yyyy-MM-dd HH:mm:ss.SSS " from a log line.
std::string messageOf(const std::string& line) {
    constexpr std::size_t stampLength = 24;
    return line.size() >= stampLength ? line.substr(stampLength) : line;
}

double secondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

// ---------------------------------------------------------------------------------------------

void StatusRecorder::record(const HelperStatus& status) {
    {
        std::lock_guard lock(mutex_);
        history_.push_back(status);
    }
    changed_.notify_all();
}

std::vector<HelperStatus> StatusRecorder::history() {
    std::lock_guard lock(mutex_);
    return history_;
}

std::optional<HelperStatus> StatusRecorder::latest() {
    std::lock_guard lock(mutex_);
    if (history_.empty()) return std::nullopt;
    return history_.back();
}

bool StatusRecorder::waitFor(const std::function<bool(const HelperStatus&)>& condition,
                             std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        return condition(history_.empty() ? HelperStatus{} : history_.back());
    });
}

// ---------------------------------------------------------------------------------------------

LogReader::LogReader() {
    flushLog();
    std::error_code ignored;
    auto size = std::filesystem::file_size(logPath(), ignored);
    start_ = ignored ? 0 : size;
}

std::vector<std::string> LogReader::lines() {
    flushLog();
    std::ifstream file(logPath(), std::ios::binary);
    file.seekg(static_cast<std::streamoff>(start_));
    std::vector<std::string> result;
    std::string line;
    while (std::getline(file, line)) result.push_back(messageOf(line));
    return result;
}

bool LogReader::waitForLine(const std::string& line, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        for (const auto& logged : lines()) {
            if (logged == line) return true;
        }
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::optional<std::string> LogReader::waitForLineStarting(const std::string& prefix,
                                                          std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        for (const auto& logged : lines()) {
            if (logged.starts_with(prefix)) return logged;
        }
        if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

int LogReader::count(const std::string& line) {
    int found = 0;
    for (const auto& logged : lines()) found += logged == line ? 1 : 0;
    return found;
}

// ---------------------------------------------------------------------------------------------

ServerFixture::ServerFixture() : port_(freePort()) {
    permission_->answerAtOnce(true);
}

void ServerFixture::TearDown() {
    if (server_) {
        server_->shutdown();
        // The cancelled listener reports on the server's queue; once that report has been
        // handled, it holds the server no more, and the test's reference is the last one.
        (void)server_->status();
    }
    server_.reset();
    // A test that changed the kit's record (its product, say) leaves it as it found it.
    AudioKit::setConfig(AudioKitConfig::defaults());
    mainQueue_.runAndWait([] {});
}

HelperServerTimings ServerFixture::fastTimings() {
    HelperServerTimings timings;
    timings.permissionTimeout = std::chrono::seconds(60);
    timings.listenerRetryDelay = std::chrono::milliseconds(100);
    timings.callInterval = std::chrono::milliseconds(20);
    timings.callLeeway = std::chrono::milliseconds(5);
    timings.callGrace = 0.1;
    timings.minimumCall = 0.0;
    timings.capture.deviceChangeDebounce = std::chrono::milliseconds(5);
    timings.capture.rebuildRetryDelay = std::chrono::milliseconds(5);
    return timings;
}

void ServerFixture::createServer(HelperServerTimings timings) {
    server_ = HelperServer::create(std::make_unique<FakeAudioTap>(tap_), permission_,
                                   microphoneUsers_, mainQueue_, policy(), timings,
                                   {signer_.verificationKey()}, peerOwners_);
    server_->setOnStatus([this](const HelperStatus& status) { statuses_.record(status); });
}

ServerPolicy ServerFixture::policy() {
    return {
        .port = [this] { return port_.load(); },
        .isOriginAllowed =
            [this](const std::optional<std::string>& origin) {
                if (!origin) return allowAbsentOrigin_.load();
                return origin->starts_with("https://page");
            },
    };
}

void ServerFixture::startServer(HelperServerTimings timings) {
    if (!server_) createServer(timings);
    server_->start();
    ASSERT_TRUE(statuses_.waitFor(
        [](const HelperStatus& status) { return status.server == ServerState::listening(); }));
}

std::shared_ptr<TestPage> ServerFixture::connectPage(const std::optional<std::string>& origin,
                                                     PageOptions options) {
    options.origin = origin;
    auto opening = TestPage::open(network_, port(), options);
    EXPECT_FALSE(opening.error) << opening.error.message();
    if (!opening.page) return nullptr;
    auto hello = opening.page->nextJson();
    EXPECT_TRUE(hello && (*hello)["type"] == "hello");
    return opening.page;
}

std::string ServerFixture::startMessage(const std::string& origin) {
    return nlohmann::json{{"type", "start"}, {"pass", signer_.issue(origin, secondsSince1970())}}
        .dump();
}

void ServerFixture::startStreaming(TestPage& page, const std::string& origin) {
    ASSERT_FALSE(page.sendText(startMessage(origin)));
    auto answer = page.nextJson();
    ASSERT_TRUE(answer);
    ASSERT_EQ(*answer, nlohmann::json({{"type", "started"}}));
}

void ServerFixture::settleStatuses() {
    // Statuses are posted to the main queue from the server's queue; a status query waits for
    // the server's queue, and the round trip through the main queue then delivers the rest.
    server_->status();
    mainQueue_.runAndWait([] {});
}

void ServerFixture::expectPong(TestPage& page) {
    ASSERT_FALSE(page.sendText(R"({"type":"ping"})"));
    auto answer = page.nextJson();
    ASSERT_TRUE(answer);
    EXPECT_EQ(*answer, nlohmann::json({{"type", "pong"}}));
}

}  // namespace velmora::testing
