// The owner of a connection's other end, from the kernel, and the refusal of other accounts.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <memory>

#include "PageProbe.h"
#include "ServerFixture.h"
#include "server/PeerOwnerLookup.h"
#include "support/FakePeerOwnerLookup.h"

namespace velmora::testing {
namespace {

using boost::asio::ip::tcp;

// A client socket connected to a listener in this process, and the accepted end.
struct LoopbackConnection {
    boost::asio::io_context context;
    tcp::acceptor acceptor{context};
    tcp::socket client{context};
    tcp::socket accepted{context};

    explicit LoopbackConnection(const boost::asio::ip::address& address) {
        acceptor.open(address.is_v4() ? tcp::v4() : tcp::v6());
        acceptor.bind({address, 0});
        acceptor.listen();
        client.connect(acceptor.local_endpoint());
        accepted = acceptor.accept();
    }

    std::uint64_t clientInode() {
        struct stat status {};
        EXPECT_EQ(::fstat(client.native_handle(), &status), 0);
        return status.st_ino;
    }
};

TEST(PeerOwnerLookupTest, FindsThisUserAsTheOwnerOfTheClientEnd) {
    LoopbackConnection connection(boost::asio::ip::address_v4::loopback());
    auto lookup = PeerOwnerLookup::platform();
    auto peer =
        lookup->find(connection.accepted.local_endpoint(), connection.accepted.remote_endpoint());
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->ownerUid, ::getuid());
    EXPECT_EQ(peer->inode, connection.clientInode());
    auto holders = lookup->processesHolding({peer->inode});
    ASSERT_TRUE(holders.contains(peer->inode));
    EXPECT_EQ(holders[peer->inode], ::getpid());
}

TEST(PeerOwnerLookupTest, FindsTheOwnerOverIPv6Loopback) {
    std::unique_ptr<LoopbackConnection> connection;
    try {
        connection = std::make_unique<LoopbackConnection>(boost::asio::ip::address_v6::loopback());
    } catch (const boost::system::system_error& error) {
        GTEST_SKIP() << "no IPv6 loopback here: " << error.code().message();
    }
    auto peer = PeerOwnerLookup::platform()->find(connection->accepted.local_endpoint(),
                                                  connection->accepted.remote_endpoint());
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->ownerUid, ::getuid());
    EXPECT_EQ(peer->inode, connection->clientInode());
}

TEST(PeerOwnerLookupTest, FindsNothingOnceTheClientHasClosed) {
    LoopbackConnection connection(boost::asio::ip::address_v4::loopback());
    const auto local = connection.accepted.local_endpoint();
    const auto remote = connection.accepted.remote_endpoint();
    auto lookup = PeerOwnerLookup::platform();
    ASSERT_TRUE(lookup->find(local, remote));
    // Closed normally, the client's socket lingers in the kernel, held by no process.
    connection.client.close();
    EXPECT_FALSE(lookup->find(local, remote));
}

TEST(PeerOwnerLookupTest, FindsNothingOnceTheConnectionIsReset) {
    LoopbackConnection connection(boost::asio::ip::address_v4::loopback());
    const auto local = connection.accepted.local_endpoint();
    const auto remote = connection.accepted.remote_endpoint();
    connection.client.set_option(boost::asio::socket_base::linger(true, 0));
    connection.client.close();
    EXPECT_FALSE(PeerOwnerLookup::platform()->find(local, remote));
}

TEST(PeerOwnerLookupTest, FindsNothingForAConnectionThatNeverWas) {
    LoopbackConnection connection(boost::asio::ip::address_v4::loopback());
    auto remote = connection.accepted.remote_endpoint();
    remote.port(static_cast<unsigned short>(remote.port() == 65535 ? 1024 : remote.port() + 1));
    EXPECT_FALSE(PeerOwnerLookup::platform()->find(connection.accepted.local_endpoint(), remote));
}

class PeerAdmissionTest : public ServerFixture {
  protected:
    bool everCounted() {
        settleStatuses();
        for (const auto& status : statuses_.history()) {
            if (status.clients > 0) return true;
        }
        return false;
    }
};

TEST_F(PeerAdmissionTest, APeerOfAnotherAccountIsRefusedWithoutHello) {
    const std::uint32_t otherUid = ::getuid() + 1000;
    auto lookup = std::make_shared<FakePeerOwnerLookup>(otherUid);
    peerOwners_ = lookup;
    startServer();
    auto opening = TestPage::open(network_, port(), {.origin = pageA});
    EXPECT_FALSE(opening.page);
    EXPECT_EQ(opening.httpStatus, 403);
    EXPECT_TRUE(log_.waitForLine("Rejected connection from another user (uid " +
                                 std::to_string(otherUid) + ")"));
    EXPECT_GE(lookup->asked(), 1);
    EXPECT_FALSE(everCounted());
}

TEST_F(PeerAdmissionTest, APeerWhoseOwnerCannotBeFoundIsRefused) {
    peerOwners_ = std::make_shared<FakePeerOwnerLookup>(std::nullopt);
    startServer();
    auto opening = TestPage::open(network_, port(), {.origin = pageA});
    EXPECT_FALSE(opening.page);
    EXPECT_EQ(opening.httpStatus, 403);
    EXPECT_TRUE(log_.waitForLine("Rejected connection whose owner could not be found"));
    EXPECT_FALSE(everCounted());
}

TEST_F(PeerAdmissionTest, AnotherAccountIsRefusedBeforeItsOriginIsLookedAt) {
    const std::uint32_t otherUid = ::getuid() + 1000;
    peerOwners_ = std::make_shared<FakePeerOwnerLookup>(otherUid);
    startServer();
    auto opening = TestPage::open(network_, port(), {.origin = refusedOrigin});
    EXPECT_EQ(opening.httpStatus, 403);
    ASSERT_TRUE(log_.waitForLine("Rejected connection from another user (uid " +
                                 std::to_string(otherUid) + ")"));
    EXPECT_EQ(log_.count("Rejected connection from origin " + refusedOrigin), 0);
}

TEST_F(PeerAdmissionTest, AnotherAccountIsRefusedWhileThisUserIsAdmitted) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can run a client as another account (the nobody user)";
    }
    const passwd* nobody = ::getpwnam("nobody");
    if (!nobody) GTEST_SKIP() << "this system has no nobody account";
    ASSERT_NE(nobody->pw_uid, ::getuid());
    const passwd other = *nobody;
    startServer();

    auto stranger = runPageProbe(port(), pageA, {.account = &other});
    ASSERT_TRUE(stranger);
    if (stranger->exitCode == rootClosedToAccountExit) {
        GTEST_SKIP() << "the nobody account cannot enter the root folder here (a root closed to "
                        "other users, as in some chroots)";
    }
    EXPECT_EQ(stranger->httpStatus, 403) << stranger->output;
    EXPECT_FALSE(stranger->firstMessage) << stranger->output;
    EXPECT_TRUE(log_.waitForLine("Rejected connection from another user (uid " +
                                 std::to_string(other.pw_uid) + ")"));

    auto own = runPageProbe(port(), pageA);
    ASSERT_TRUE(own);
    EXPECT_EQ(own->httpStatus, 101) << own->output;
    ASSERT_TRUE(own->firstMessage) << own->output;
    EXPECT_EQ(nlohmann::json::parse(*own->firstMessage)["type"], "hello");
    EXPECT_TRUE(log_.waitForLine("Client connected (" + pageA + ")"));
}

TEST_F(PeerAdmissionTest, APageInASandboxOfThisUserIsAdmitted) {
    startServer();
    auto sandboxed = runPageProbe(port(), pageA, {.inUserNamespace = true});
    ASSERT_TRUE(sandboxed);
    if (sandboxed->exitCode == noUserNamespaceExit) {
        GTEST_SKIP() << "this system lets no process make a user namespace";
    }
    EXPECT_EQ(sandboxed->httpStatus, 101) << sandboxed->output;
    ASSERT_TRUE(sandboxed->firstMessage) << sandboxed->output;
    EXPECT_EQ(nlohmann::json::parse(*sandboxed->firstMessage)["type"], "hello");
}

}  // namespace
}  // namespace velmora::testing
