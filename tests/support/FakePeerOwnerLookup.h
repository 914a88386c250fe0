#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "server/PeerOwnerLookup.h"

namespace velmora::testing {

// Says every peer belongs to one fixed account, or that no owner can be found.
class FakePeerOwnerLookup final : public PeerOwnerLookup {
  public:
    explicit FakePeerOwnerLookup(std::optional<std::uint32_t> owner) : owner_(owner) {}

    std::optional<PeerSocket> find(const boost::asio::ip::tcp::endpoint&,
                                   const boost::asio::ip::tcp::endpoint&) override {
        ++asked_;
        if (!owner_) return std::nullopt;
        return PeerSocket{*owner_, nextInode_++};
    }

    std::unordered_map<std::uint64_t, int> processesHolding(
        const std::unordered_set<std::uint64_t>&) override {
        return {};
    }

    int asked() const { return asked_; }

  private:
    std::optional<std::uint32_t> owner_;
    std::atomic<int> asked_{0};
    std::atomic<std::uint64_t> nextInode_{1};
};

}  // namespace velmora::testing
