#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "app/installer/InstallerFrontEnd.h"

namespace velmora::testing {

// Answers the offer as told and records what the installer showed; "trashes" by moving the
// path into a folder of its own.
class FakeInstallerFrontEnd final : public InstallerFrontEnd {
  public:
    explicit FakeInstallerFrontEnd(bool answersInstall, std::filesystem::path trash = {})
        : answersInstall_(answersInstall), trash_(std::move(trash)) {}

    bool askToInstall(const std::string& message, const std::string& informative) override {
        offers.push_back(message + "|" + informative);
        return answersInstall_;
    }
    void showFailure(const std::string& message, const std::string& informative) override {
        failures.push_back(message + "|" + informative);
    }
    void moveToTrash(const std::filesystem::path& path) override {
        trashed.push_back(path);
        std::filesystem::create_directories(trash_);
        std::filesystem::rename(path, trash_ / path.filename());
    }
    void turnEventLoop(std::chrono::milliseconds) override { ++turns; }

    std::vector<std::string> offers;
    std::vector<std::string> failures;
    std::vector<std::filesystem::path> trashed;
    int turns = 0;

  private:
    bool answersInstall_;
    std::filesystem::path trash_;
};

}  // namespace velmora::testing
