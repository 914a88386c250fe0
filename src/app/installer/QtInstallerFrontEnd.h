#pragma once

#include <optional>

#include "app/installer/InstallerFrontEnd.h"

namespace velmora {

// The installer's dialogs, Trash and event loop through Qt. With a scripted answer (for tests
// that run the whole hand-over without anyone at the screen) no dialog is shown: the offer gets
// that answer and a failure is only logged.
class QtInstallerFrontEnd final : public InstallerFrontEnd {
  public:
    // scriptedAnswer: true answers "Install", false "Not Now", nothing shows the dialogs.
    explicit QtInstallerFrontEnd(std::optional<bool> scriptedAnswer);

    // In builds with test switches (VELMORA_TEST_SWITCHES, never a release), the answer the
    // environment variable VELMORA_INSTALLER_ANSWER scripts: "install" or "not-now"; nothing
    // when it is unset or holds anything else. Always nothing in a release build.
    static std::optional<bool> scriptedAnswerFromEnvironment();

    bool askToInstall(const std::string& message, const std::string& informative) override;
    void showFailure(const std::string& message, const std::string& informative) override;
    void moveToTrash(const std::filesystem::path& path) override;
    void turnEventLoop(std::chrono::milliseconds duration) override;

  private:
    std::optional<bool> scriptedAnswer_;
};

}  // namespace velmora
