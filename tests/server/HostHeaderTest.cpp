// Only requests that name the helper's own address in Host are admitted.
#include <gtest/gtest.h>

#include <string>

#include "RawConnection.h"
#include "ServerFixture.h"
#include "server/HostHeader.h"

namespace velmora::testing {
namespace {

TEST(HostHeaderRuleTest, TheHelpersOwnAddressesWithItsPortAreAccepted) {
    EXPECT_TRUE(isOwnHost("127.0.0.1:52849", 52849));
    EXPECT_TRUE(isOwnHost("localhost:52849", 52849));
    EXPECT_TRUE(isOwnHost("LocalHost:52849", 52849));
    EXPECT_TRUE(isOwnHost("[::1]:52849", 52849));
}

TEST(HostHeaderRuleTest, OtherNamesPortsAndFormsAreRefused) {
    EXPECT_FALSE(isOwnHost("127.0.0.1:52850", 52849));
    EXPECT_FALSE(isOwnHost("127.0.0.1", 52849));
    EXPECT_FALSE(isOwnHost("127.0.0.1:", 52849));
    EXPECT_FALSE(isOwnHost("rebound.example:52849", 52849));
    EXPECT_FALSE(isOwnHost("localhost.:52849", 52849));
    EXPECT_FALSE(isOwnHost("sub.localhost:52849", 52849));
    EXPECT_FALSE(isOwnHost("127.0.0.2:52849", 52849));
    EXPECT_FALSE(isOwnHost("::1:52849", 52849));
    EXPECT_FALSE(isOwnHost("[::1]:152849", 52849));
    EXPECT_FALSE(isOwnHost("x127.0.0.1:52849", 52849));
    EXPECT_FALSE(isOwnHost("", 52849));
}

TEST(HostHeaderRuleTest, OnlyTheDefaultPortMayBeLeftOut) {
    EXPECT_TRUE(isOwnHost("127.0.0.1", 80));
    EXPECT_TRUE(isOwnHost("127.0.0.1:80", 80));
    EXPECT_FALSE(isOwnHost("127.0.0.1:", 80));
    EXPECT_FALSE(isOwnHost("127.0.0.1:080", 80));
}

class HostAdmissionTest : public ServerFixture {
  protected:
    void SetUp() override { startServer(); }

    // The server's answer to an upgrade request from an allowed page with these header lines
    // in place of Host.
    std::string answerTo(const std::string& hostLines) {
        RawConnection connection(port());
        EXPECT_TRUE(connection.connected());
        connection.send("GET / HTTP/1.1\r\n" + hostLines +
                        "Upgrade: websocket\r\nConnection: Upgrade\r\n"
                        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                        "Sec-WebSocket-Version: 13\r\nOrigin: " +
                        pageA + "\r\n\r\n");
        return connection.receive(generousTimeout, "hello");
    }

    std::string withHost(const std::string& host) { return answerTo("Host: " + host + "\r\n"); }
    std::string own(const std::string& name) { return name + ":" + std::to_string(port()); }
};

TEST_F(HostAdmissionTest, EachOfTheHelpersOwnNamesIsAdmitted) {
    for (const std::string name : {"127.0.0.1", "localhost", "[::1]"}) {
        const auto answer = withHost(own(name));
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 101")) << name << ": " << answer;
        EXPECT_NE(answer.find("\"type\":\"hello\""), std::string::npos) << name;
    }
}

TEST_F(HostAdmissionTest, AnotherPortIsRefused) {
    const auto answer = withHost("127.0.0.1:" + std::to_string(port() == 65535 ? 1 : port() + 1));
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 403")) << answer;
    EXPECT_TRUE(log_.waitForLine("Rejected connection: its Host header names another address"));
}

TEST_F(HostAdmissionTest, AnotherHostIsRefusedEvenFromAnAllowedOrigin) {
    // A name that an attacker made resolve to 127.0.0.1.
    const auto answer = withHost(own("rebound.example"));
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 403")) << answer;
    EXPECT_EQ(answer.find("hello"), std::string::npos);
    settleStatuses();
    for (const auto& status : statuses_.history()) EXPECT_EQ(status.clients, 0);
}

TEST_F(HostAdmissionTest, AHostWithoutThePortIsRefused) {
    const auto answer = withHost("127.0.0.1");
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 403")) << answer;
}

TEST_F(HostAdmissionTest, AMissingHostIsRefused) {
    const auto answer = answerTo("");
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 400")) << answer;
}

}  // namespace
}  // namespace velmora::testing
