// What admitting a page costs for the owner check: one kernel query per connection, and the
// scan of the user's processes that the per-process cap needs once many connections are open.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "server/PeerOwnerLookup.h"

namespace {

using boost::asio::ip::tcp;

struct Connection {
    boost::asio::io_context context;
    tcp::acceptor acceptor{context, {boost::asio::ip::address_v4::loopback(), 0}};
    tcp::socket client{context};
    tcp::socket accepted{context};

    Connection() {
        client.connect(acceptor.local_endpoint());
        accepted = acceptor.accept();
    }
};

void BM_FindPeerOwner(benchmark::State& state) {
    Connection connection;
    auto lookup = velmora::PeerOwnerLookup::platform();
    const auto local = connection.accepted.local_endpoint();
    const auto remote = connection.accepted.remote_endpoint();
    for (auto _ : state) {
        auto peer = lookup->find(local, remote);
        if (!peer) state.SkipWithError("the peer was not found");
        benchmark::DoNotOptimize(peer);
    }
}
BENCHMARK(BM_FindPeerOwner);

void BM_ProcessHoldingPeerSocket(benchmark::State& state) {
    Connection connection;
    auto lookup = velmora::PeerOwnerLookup::platform();
    struct stat status {};
    ::fstat(connection.client.native_handle(), &status);
    const std::uint64_t inode = status.st_ino;
    for (auto _ : state) {
        auto holders = lookup->processesHolding({inode});
        if (!holders.contains(inode)) state.SkipWithError("the holder was not found");
        benchmark::DoNotOptimize(holders);
    }
}
BENCHMARK(BM_ProcessHoldingPeerSocket)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
