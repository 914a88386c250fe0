#include "config/AudioKit.h"

#include <mutex>
#include <shared_mutex>

namespace velmora::AudioKit {
namespace {

struct Holder {
    std::shared_mutex mutex;
    AudioKitConfig value = AudioKitConfig::defaults();
};

Holder& holder() {
    static Holder instance;  // thread-safe one-time initialisation
    return instance;
}

}  // namespace

AudioKitConfig config() {
    std::shared_lock lock(holder().mutex);
    return holder().value;
}

void setConfig(AudioKitConfig config) {
    std::unique_lock lock(holder().mutex);
    holder().value = std::move(config);
}

void modifyConfig(const std::function<void(AudioKitConfig&)>& change) {
    std::unique_lock lock(holder().mutex);
    change(holder().value);
}

}  // namespace velmora::AudioKit
