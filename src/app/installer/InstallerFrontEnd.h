#pragma once

#include <chrono>
#include <filesystem>
#include <string>

namespace velmora {

// What the installer needs from the desktop: the two dialogs, the Trash and the event loop. The
// Qt front end is the real one; tests stand in for it.
class InstallerFrontEnd {
  public:
    virtual ~InstallerFrontEnd() = default;

    // Brings the program to the front and asks; true only when the answer is "Install".
    virtual bool askToInstall(const std::string& message, const std::string& informative) = 0;

    // Tells that the install failed, with only a default button.
    virtual void showFailure(const std::string& message, const std::string& informative) = 0;

    // Moves a file or folder to the desktop's Trash; throws InstallerError when it can't.
    virtual void moveToTrash(const std::filesystem::path& path) = 0;

    // Lets the event loop run for about the given time.
    virtual void turnEventLoop(std::chrono::milliseconds duration) = 0;
};

}  // namespace velmora
