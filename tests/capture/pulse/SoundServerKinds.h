#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/SoundServer.h"

namespace velmora::testing {

// Both servers for INSTANTIATE_TEST_SUITE_P, named "PulseAudio" and "PipeWire".
inline auto allSoundServers() {
    return ::testing::Values(SoundServer::Kind::pulseAudio, SoundServer::Kind::pipeWire);
}

inline std::string soundServerName(const ::testing::TestParamInfo<SoundServer::Kind>& info) {
    return SoundServer::kindName(info.param);
}

}  // namespace velmora::testing
