// The menu and autostart entries as the desktop reads them: GLib's launcher (gio launch, what
// GNOME's menu and session use) parses each entry and starts the program it names, at a path
// that needs every level of escaping.
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "app/installer/AutostartEntry.h"
#include "app/installer/DesktopEntry.h"
#include "app/installer/ExecValue.h"
#include "app/installer/ToolRun.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using testing::readText;
using testing::TemporaryFolder;
using testing::writeText;

// A folder name with a blank, a double and a single quote, a backslash, a dollar sign and a
// backtick: each is reserved in Exec.
constexpr const char* trickyName = "Ann \"Q\" O'Neil \\ $HOME `x`";

class DesktopEntryLaunch : public ::testing::Test {
  protected:
    // A program at `program` that writes where it ran from and its arguments into the marker.
    void writeProgram(const std::filesystem::path& program) {
        writeText(program, "#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\" > '" + marker().string() +
                               ".part' && mv '" + marker().string() + ".part' '" +
                               marker().string() + "'\n");
        ::chmod(program.c_str(), 0755);
    }

    // Launches the entry as the desktop does and returns what the program wrote.
    std::string launch(const std::filesystem::path& entry) {
        EXPECT_NO_THROW(AppInstaller::run("/usr/bin/gio", {"launch", entry.string()}));
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!std::filesystem::exists(marker()) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return std::filesystem::exists(marker()) ? readText(marker()) : "(nothing started)";
    }

    std::filesystem::path marker() const { return folder_ / "started"; }

    TemporaryFolder folder_;
};

TEST_F(DesktopEntryLaunch, TheMenuEntryStartsTheInstalledCopy) {
    const auto installed = folder_ / trickyName / "velmora-audio-helper";
    const auto executable = installed / "bin/velmora-audio-helper";
    writeProgram(executable);
    const auto entry = AppInstaller::writeDesktopEntry(installed, folder_ / "applications");
    EXPECT_NO_THROW(AppInstaller::run("/usr/bin/desktop-file-validate", {entry.string()}));
    EXPECT_EQ(launch(entry), executable.string() + "\n");
}

TEST_F(DesktopEntryLaunch, TheAutostartEntryStartsTheHelperWithoutTheWelcome) {
    const auto executable = folder_ / trickyName / "velmora-audio-helper";
    writeProgram(executable);
    ASSERT_EQ(AutostartEntry::write(folder_ / "autostart", executable), std::nullopt);
    const auto entry = folder_ / "autostart" / AutostartEntry::fileName;
    EXPECT_NO_THROW(AppInstaller::run("/usr/bin/desktop-file-validate", {entry.string()}));
    EXPECT_EQ(launch(entry), executable.string() + "\n--no-welcome\n");
}

// A percent sign is doubled so that no launcher reads it as a field code. (GLib checks that the
// program exists before it undoes the doubling, so the program is named through sh here.)
TEST_F(DesktopEntryLaunch, APercentSignInAPathReachesTheProgramAsOne) {
    const auto script = folder_ / (std::string(trickyName) + " 100%u") / "velmora-audio-helper";
    writeProgram(script);
    const auto entry = folder_ / "percent.desktop";
    writeText(entry, "[Desktop Entry]\nType=Application\nName=Percent\nExec=" +
                         AppInstaller::execValue({"/bin/sh", script.string(), "50%"}) + "\n");
    EXPECT_NO_THROW(AppInstaller::run("/usr/bin/desktop-file-validate", {entry.string()}));
    EXPECT_EQ(launch(entry), script.string() + "\n50%\n");
}

}  // namespace
}  // namespace velmora
