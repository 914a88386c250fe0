#pragma once

#include <functional>

#include "config/AudioKitConfig.h"

namespace velmora::AudioKit {

// A copy of the current configuration; safe from any thread.
AudioKitConfig config();

// Replaces the whole record (the entry point does this before anything else starts).
void setConfig(AudioKitConfig config);

// Changes fields in place under the same lock.
void modifyConfig(const std::function<void(AudioKitConfig&)>& change);

}  // namespace velmora::AudioKit
