// What a refused page sends as its Origin is logged, but can't forge or colour log lines.
#include <gtest/gtest.h>

#include "RawConnection.h"
#include "ServerFixture.h"

namespace velmora::testing {
namespace {

class LoggedOriginTest : public ServerFixture {
  protected:
    void SetUp() override { startServer(); }
};

// The HTTP parser lets through bytes above 0x7f, so a header can carry the C1 controls (NEL,
// CSI) that some terminals and viewers take as a line break or an escape sequence.
TEST_F(LoggedOriginTest, ControlCharactersInARefusedOriginAreWrittenVisibly) {
    RawConnection connection(port());
    ASSERT_TRUE(connection.connected());
    connection.send(upgradeRequest(port(),
                                   "Origin: https://evil.example\xc2\x85"
                                   "2026-11-15 23:25:21.042 Client connected "
                                   "(https://page-a.example)\xc2\x9b"
                                   "2J\r\n"));
    EXPECT_TRUE(connection.receive(generousTimeout, "\r\n\r\n").starts_with("HTTP/1.1 403"));
    EXPECT_TRUE(
        log_.waitForLine("Rejected connection from origin https://evil.example\\u0085"
                         "2026-11-15 23:25:21.042 Client connected "
                         "(https://page-a.example)\\u009b2J"));
}

}  // namespace
}  // namespace velmora::testing
