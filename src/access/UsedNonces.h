#pragma once

#include <mutex>
#include <string>
#include <unordered_map>

namespace velmora {

// The nonces of accepted start passes, each remembered for a fixed time so that a pass cannot
// be replayed. Safe to use from any thread.
class UsedNonces {
  public:
    explicit UsedNonces(double retentionSeconds);

    // Forgets every nonce whose time is up (expiry not later than now), then records nonce until
    // now + retention unless it is still remembered. Returns whether it was recorded; false means
    // the nonce was used before. All of it happens under one lock, so of two threads claiming the
    // same nonce exactly one succeeds.
    bool claim(const std::string& nonce, double now);

    // How many nonces are remembered.
    std::size_t size() const;

  private:
    const double retention_;
    mutable std::mutex mutex_;
    std::unordered_map<std::string, double> expiries_;
};

}  // namespace velmora
