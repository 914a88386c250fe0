#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// Build constants, fixed for the life of the process.
namespace HelperInfo {

// The program's name: its settings folder, the greeting's "app", the HTTP server header.
inline constexpr const char* appId = "velmora-audio-helper";
// The application identifier: the helper's own sound-server streams carry it as application.id,
// so the call-end watch skips it (and its sub-identifiers) as itself.
inline constexpr const char* bundleId = "com.velmora.audiohelper";
inline constexpr std::uint16_t defaultPort = 52849;
inline constexpr int sampleRate = 16000;
inline constexpr int frameSamples = 1600;  // 100 ms at sampleRate

// The deployment's version, or "1.0.0" when the build gave none.
const std::string& version();

// Resolves a build-supplied version text; an empty one falls back to "1.0.0".
std::string versionFrom(std::string_view buildVersion);

// The web application's three origins: app host, bare domain, www. form.
const std::vector<std::string>& builtInOrigins();

}  // namespace HelperInfo
}  // namespace velmora
