#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app/installer/DiskImageVolume.h"
#include "app/installer/InstallerFrontEnd.h"

namespace velmora {

// Where an install goes and which tools do it. The defaults are the real places; tests point
// them elsewhere.
struct InstallOptions {
    std::filesystem::path systemFolder;        // tried first when writable ("/opt")
    std::filesystem::path userFolder;          // otherwise ($XDG_DATA_HOME)
    std::filesystem::path applicationsFolder;  // the menu entry's folder
    std::string copyTool = "/bin/cp";
    // Other running copies are the processes holding a copy lock in this folder.
    std::filesystem::path runningCopiesFolder;
    // Starts the installed copy once this process has gone.
    std::function<void(const std::filesystem::path&, const std::optional<DiskImageVolume>&)>
        handOver;
    // An install into the system folder is for every user: its menu entry goes here
    // ("/usr/local/share/applications"), and a link to its executable into the command folder
    // ("/usr/local/bin"). Empty: none.
    std::filesystem::path systemApplicationsFolder;
    std::filesystem::path systemCommandFolder;
    // Where an autostart entry of ours is pointed at the installed copy ($XDG_CONFIG_HOME/
    // autostart). Empty: none.
    std::filesystem::path autostartFolder;

    // The real places, the real copy tool and the real hand-over.
    static InstallOptions standard();
};

namespace AppInstaller {

// The launch-time offer for the program at `executable`: true when an installed copy is about to
// take over and the caller must end now, false when the caller goes on launching. No offer is
// made with "--no-install" among `args`, or unless the executable is known to sit on a
// read-only file system. "Not Now" is not remembered. After an install, an autostart entry of
// ours that is on starts the installed copy.
bool runInstallOffer(const std::vector<std::string>& args,
                     const std::optional<std::filesystem::path>& executable,
                     InstallerFrontEnd& frontEnd, const InstallOptions& options);

// Copies the portable folder `source` to the target folder and returns the installed folder,
// after quitting other running copies and moving an earlier installed folder to the Trash.
// Writes the installed copy's menu entry, and for an install into the system folder links its
// executable into the command folder. Throws InstallerError when a step fails; nothing is
// rolled back.
std::filesystem::path install(const std::filesystem::path& source, InstallerFrontEnd& frontEnd,
                              const InstallOptions& options);

}  // namespace AppInstaller
}  // namespace velmora
