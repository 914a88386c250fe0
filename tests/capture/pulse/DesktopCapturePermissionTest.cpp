#include "capture/pulse/DesktopCapturePermission.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

namespace velmora {
namespace {

using namespace std::chrono_literals;

// A folder of fake settings programs that leave a mark when they run.
class FakePrograms {
  public:
    FakePrograms()
        : folder_(std::filesystem::temp_directory_path() /
                  ("velmora-settings-" + std::to_string(::getpid()) + "-" +
                   std::to_string(counter_++))) {
        std::filesystem::create_directories(folder_);
    }
    ~FakePrograms() {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    void add(const std::string& name) {
        const auto path = folder_ / name;
        std::ofstream(path) << "#!/bin/sh\necho \"" << name << " $*\" > '"
                            << (folder_ / "ran").string() << ".tmp'\nmv '"
                            << (folder_ / "ran").string() << ".tmp' '" << (folder_ / "ran").string()
                            << "'\n";
        ::chmod(path.c_str(), 0755);
    }

    // What ran, once it has (bounded wait: the program runs detached).
    std::string waitForRun() const {
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (std::chrono::steady_clock::now() < deadline) {
            std::ifstream file(folder_ / "ran");
            std::string line;
            if (std::getline(file, line)) {
                return line;
            }
            std::this_thread::sleep_for(10ms);
        }
        return {};
    }

    bool anythingRan() const { return std::filesystem::exists(folder_ / "ran"); }
    std::string path() const { return folder_.string(); }

  private:
    static inline int counter_ = 0;
    std::filesystem::path folder_;
};

TEST(DesktopCapturePermissionTest, StatusIsUnknownWithoutAPrivacyDatabase) {
    DesktopCapturePermission permission;
    EXPECT_EQ(permission.status(), AudioCapturePermission::Status::unknown);
}

TEST(DesktopCapturePermissionTest, RequestGrantsAtOnce) {
    DesktopCapturePermission permission;
    std::optional<bool> answer;
    permission.request([&](bool granted) { answer = granted; });
    EXPECT_EQ(answer, true);
}

TEST(DesktopCapturePermissionTest, RequestWithoutCompletionIsHarmless) {
    DesktopCapturePermission permission;
    permission.request(nullptr);
}

TEST(DesktopCapturePermissionTest, OpenSystemSettingsStartsTheFirstSettingsProgramFound) {
    FakePrograms programs;
    programs.add("pavucontrol");
    programs.add("gnome-control-center");
    DesktopCapturePermission permission(DesktopCapturePermission::defaultCandidates(),
                                        "/nonexistent:" + programs.path());
    permission.openSystemSettings();
    EXPECT_EQ(programs.waitForRun(), "gnome-control-center sound");
}

TEST(DesktopCapturePermissionTest, OpenSystemSettingsFallsBackToAMixer) {
    FakePrograms programs;
    programs.add("pavucontrol");
    DesktopCapturePermission permission(DesktopCapturePermission::defaultCandidates(),
                                        programs.path());
    permission.openSystemSettings();
    EXPECT_EQ(programs.waitForRun(), "pavucontrol ");
}

TEST(DesktopCapturePermissionTest, OpenSystemSettingsDoesNothingWhenNoProgramIsFound) {
    FakePrograms programs;
    DesktopCapturePermission permission(DesktopCapturePermission::defaultCandidates(),
                                        programs.path());
    permission.openSystemSettings();
    EXPECT_FALSE(programs.anythingRan());
}

}  // namespace
}  // namespace velmora
