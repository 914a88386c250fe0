#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unordered_set>

#include "capture/AudioCapturePermission.h"

namespace velmora {
namespace {

using Status = AudioCapturePermission::Status;

TEST(AudioCapturePermissionStatus, RawValuesAreTheCaseNames) {
    EXPECT_EQ(AudioCapturePermission::rawValue(Status::authorized), "authorized");
    EXPECT_EQ(AudioCapturePermission::rawValue(Status::denied), "denied");
    EXPECT_EQ(AudioCapturePermission::rawValue(Status::unknown), "unknown");
}

TEST(AudioCapturePermissionStatus, EveryRawValueComesBackAsItsCase) {
    for (Status status : {Status::authorized, Status::denied, Status::unknown}) {
        EXPECT_EQ(AudioCapturePermission::fromRawValue(AudioCapturePermission::rawValue(status)),
                  status);
    }
}

TEST(AudioCapturePermissionStatus, CapitalisedRawValueYieldsNothing) {
    EXPECT_EQ(AudioCapturePermission::fromRawValue("Authorized"), std::nullopt);
    EXPECT_EQ(AudioCapturePermission::fromRawValue("DENIED"), std::nullopt);
}

TEST(AudioCapturePermissionStatus, AnythingButTheExactThreeWordsYieldsNothing) {
    for (const char* raw : {"", " authorized", "authorized ", "granted", "unknown\n", "denie"}) {
        EXPECT_EQ(AudioCapturePermission::fromRawValue(raw), std::nullopt) << '"' << raw << '"';
    }
    using namespace std::string_view_literals;
    EXPECT_EQ(AudioCapturePermission::fromRawValue("denied\0"sv), std::nullopt);
}

TEST(AudioCapturePermissionStatus, CasesAreDistinctWhenHashed) {
    std::unordered_set<Status> statuses{Status::authorized, Status::denied, Status::unknown,
                                        Status::denied};
    EXPECT_EQ(statuses.size(), 3u);
    EXPECT_NE(Status::authorized, Status::unknown);
}

}  // namespace
}  // namespace velmora
