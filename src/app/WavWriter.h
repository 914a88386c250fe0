#pragma once

#include <filesystem>
#include <span>
#include <string>

namespace velmora {

// Writes mono 32-bit float samples as a WAV file (IEEE float format), the helper's own format,
// so a recording is bit-exact. Returns an error sentence, or an empty string on success.
std::string writeFloatWav(const std::filesystem::path& file, int sampleRate,
                          std::span<const float> samples);

}  // namespace velmora
