#include "app/installer/AutostartEntry.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using testing::readText;
using testing::TemporaryFolder;
using testing::writeText;

class AutostartEntryTest : public ::testing::Test {
  protected:
    std::filesystem::path program(const std::string& name) {
        const auto path = folder_ / name / "bin/velmora-audio-helper";
        writeText(path, "#!/bin/sh\n");
        ::chmod(path.c_str(), 0755);
        return path;
    }
    std::optional<std::filesystem::path> startsAtLogin() {
        auto keys = AutostartEntry::read(entry());
        return keys ? AutostartEntry::runnableProgram(*keys) : std::nullopt;
    }
    std::filesystem::path autostart() const { return folder_ / "autostart"; }
    std::filesystem::path entry() const { return autostart() / AutostartEntry::fileName; }

    TemporaryFolder folder_;
};

TEST_F(AutostartEntryTest, OurEntryThatIsOnFollowsTheInstalledCopy) {
    const auto onImage = folder_ / "media/VELMORA/velmora-audio-helper/bin/velmora-audio-helper";
    ASSERT_EQ(AutostartEntry::write(autostart(), onImage), std::nullopt);
    EXPECT_EQ(startsAtLogin(), std::nullopt) << "nothing is at the image's path";
    const auto installed = program("installed copy");
    EXPECT_EQ(AutostartEntry::followInstalledCopy(autostart(), installed), std::nullopt);
    EXPECT_EQ(startsAtLogin(), installed);
    auto keys = AutostartEntry::read(entry());
    ASSERT_TRUE(keys);
    EXPECT_TRUE(AutostartEntry::isOurs(*keys));
    EXPECT_EQ((*keys)["TryExec"], installed.string());
}

TEST_F(AutostartEntryTest, NoEntryStaysNoEntry) {
    EXPECT_EQ(AutostartEntry::followInstalledCopy(autostart(), program("installed")), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(autostart()));
}

TEST_F(AutostartEntryTest, OurSwitchedOffEntryAndSomeoneElsesAreLeftAlone) {
    const std::string off = AutostartEntry::text("/old/velmora-audio-helper") + "Hidden=true\n";
    writeText(entry(), off);
    EXPECT_EQ(AutostartEntry::followInstalledCopy(autostart(), program("installed")), std::nullopt);
    EXPECT_EQ(readText(entry()), off);

    const std::string foreign = "[Desktop Entry]\nType=Application\nExec=/old/helper\n";
    writeText(entry(), foreign);
    EXPECT_EQ(AutostartEntry::followInstalledCopy(autostart(), program("installed")), std::nullopt);
    EXPECT_EQ(readText(entry()), foreign);
}

TEST_F(AutostartEntryTest, AnEntryThatCannotBeRewrittenSaysWhy) {
    ASSERT_EQ(AutostartEntry::write(autostart(), "/old/velmora-audio-helper"), std::nullopt);
    // A folder where the temporary file goes stops even the superuser.
    std::filesystem::remove(entry());
    std::filesystem::create_directories(entry());
    std::optional<std::string> problem = AutostartEntry::write(autostart(), program("installed"));
    ASSERT_TRUE(problem.has_value());
    EXPECT_NE(problem->find(entry().string()), std::string::npos) << *problem;
}

}  // namespace
}  // namespace velmora
