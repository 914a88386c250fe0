#include "app/TrayModule.h"

#include <gtest/gtest.h>

#include <sstream>

namespace velmora {
namespace {

TEST(TrayModuleTest, IsLookedForBesideTheProgramThenInItsPrivateLibraryFolder) {
    auto candidates = TrayModule::candidates("/opt/velmora-audio-helper/bin/velmora-audio-helper");
    ASSERT_EQ(candidates.size(), 2u);
    EXPECT_EQ(candidates[0], "/opt/velmora-audio-helper/bin/velmora-tray.so");
    EXPECT_EQ(candidates[1],
              "/opt/velmora-audio-helper/lib/velmora-audio-helper/modules/velmora-tray.so");
}

TEST(TrayModuleTest, TheInstalledProgramFindsItUnderUsrLib) {
    auto candidates = TrayModule::candidates("/usr/bin/velmora-audio-helper");
    EXPECT_EQ(candidates.back(), "/usr/lib/velmora-audio-helper/modules/velmora-tray.so");
}

TEST(TrayModuleTest, AMissingModuleIsReportedAndNothingRuns) {
    // This test program has no tray module beside it.
    std::ostringstream err;
    char name[] = "app_tests";
    char* argv[] = {name, nullptr};
    EXPECT_EQ(TrayModule::run(1, argv, err), std::nullopt);
    EXPECT_NE(err.str().find("the tray could not be loaded: no velmora-tray.so beside the program"),
              std::string::npos)
        << err.str();
}

}  // namespace
}  // namespace velmora
