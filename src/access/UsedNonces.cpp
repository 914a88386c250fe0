#include "access/UsedNonces.h"

namespace velmora {

UsedNonces::UsedNonces(double retentionSeconds) : retention_(retentionSeconds) {}

bool UsedNonces::claim(const std::string& nonce, double now) {
    const std::lock_guard lock(mutex_);
    std::erase_if(expiries_, [now](const auto& entry) { return !(entry.second > now); });
    return expiries_.try_emplace(nonce, now + retention_).second;
}

std::size_t UsedNonces::size() const {
    const std::lock_guard lock(mutex_);
    return expiries_.size();
}

}  // namespace velmora
