#include "capture/pulse/ApplicationStreams.h"

#include <gtest/gtest.h>
#include <pulse/def.h>
#include <pulse/proplist.h>

#include <memory>

namespace velmora {
namespace {

struct ProplistDeleter {
    void operator()(pa_proplist* list) const { pa_proplist_free(list); }
};

class ApplicationStreamsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        info_.client = 7;
        info_.owner_module = 0;  // PulseAudio: the protocol module that serves the client
        info_.proplist = properties_.get();
        pa_proplist_sets(properties_.get(), "application.name", "Meeting");
    }

    std::unique_ptr<pa_proplist, ProplistDeleter> properties_{pa_proplist_new()};
    pa_sink_input_info info_{};
};

TEST_F(ApplicationStreamsTest, AClientsStreamIsRecordedWhateverModuleServesTheClient) {
    EXPECT_TRUE(isApplicationStream(info_));
    info_.owner_module = PA_INVALID_INDEX;  // PipeWire's pulse server names no module
    EXPECT_TRUE(isApplicationStream(info_));
}

TEST_F(ApplicationStreamsTest, AStreamWithoutAClientIsTheServersOwnRouting) {
    info_.client = PA_INVALID_INDEX;
    info_.owner_module = 12;  // combine-sink, loopback, remap, echo-cancel
    EXPECT_FALSE(isApplicationStream(info_));
    info_.owner_module = PA_INVALID_INDEX;  // PipeWire's own loopback
    EXPECT_FALSE(isApplicationStream(info_));
}

TEST_F(ApplicationStreamsTest, AStreamOfALinkedNodePairIsLeftOutEvenWithAClient) {
    pa_proplist_sets(properties_.get(), "node.link-group", "filter-chain-1234-17");
    EXPECT_FALSE(isApplicationStream(info_));
}

TEST_F(ApplicationStreamsTest, AStreamWithoutPropertiesIsJudgedByItsClient) {
    info_.proplist = nullptr;
    EXPECT_TRUE(isApplicationStream(info_));
}

}  // namespace
}  // namespace velmora
