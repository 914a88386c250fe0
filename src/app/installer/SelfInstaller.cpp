#include "app/installer/SelfInstaller.h"

#include <algorithm>

#include "app/installer/AutostartEntry.h"
#include "app/installer/CopyLock.h"
#include "app/installer/DesktopEntry.h"
#include "app/installer/HandOver.h"
#include "app/installer/InstallPlaces.h"
#include "app/installer/InstallerError.h"
#include "app/installer/LaunchLocation.h"
#include "app/installer/OtherCopies.h"
#include "app/installer/ToolRun.h"
#include "config/Log.h"
#include "config/PlatformTexts.h"

namespace velmora {

InstallOptions InstallOptions::standard() {
    const std::filesystem::path data = AppInstaller::dataHome();
    return InstallOptions{
        .systemFolder = AppInstaller::systemTargetFolder,
        .userFolder = data,
        .applicationsFolder = data.empty() ? data : data / "applications",
        .runningCopiesFolder = AppInstaller::runningCopiesFolder(),
        .handOver = &AppInstaller::relaunch,
        .systemApplicationsFolder = AppInstaller::systemApplicationsFolder,
        .systemCommandFolder = AppInstaller::systemCommandFolder,
        .autostartFolder = AutostartEntry::defaultFolder(),
    };
}

namespace AppInstaller {
namespace {

// Lets the owner write to a file or folder (never through a link); a failure is left for the
// step that needs it to report.
void addOwnerWrite(const std::filesystem::path& path) {
    std::error_code error;
    std::filesystem::file_status status = std::filesystem::symlink_status(path, error);
    if (error || std::filesystem::is_symlink(status)) return;
    auto added = std::filesystem::perms::owner_write;
    if (std::filesystem::is_directory(status)) added |= std::filesystem::perms::owner_all;
    std::filesystem::permissions(path, added, std::filesystem::perm_options::add, error);
}

}  // namespace

std::filesystem::path install(const std::filesystem::path& source, InstallerFrontEnd& frontEnd,
                              const InstallOptions& options) {
    const std::filesystem::path target = targetFolder(options.systemFolder, options.userFolder);
    const std::filesystem::path destination = target / installedFolderName;
    const bool forEveryone = target == options.systemFolder;

    quitOtherCopies(options.runningCopiesFolder, [&frontEnd](std::chrono::milliseconds slice) {
        frontEnd.turnEventLoop(slice);
    });

    std::error_code error;
    if (std::filesystem::exists(std::filesystem::symlink_status(destination, error))) {
        // An earlier copy made with the image's read-only modes can't be moved until its folder
        // may be written.
        addOwnerWrite(destination);
        frontEnd.moveToTrash(destination);
    }
    // Not the image's modes (read-only everywhere on a disk image): the installed copy belongs
    // to whoever installed it, and the next install must be able to move it to the Trash.
    run(options.copyTool,
        {"-R", "--preserve=timestamps", "-T", source.string(), destination.string()});
    addOwnerWrite(destination);
    std::filesystem::recursive_directory_iterator walk(destination, error), end;
    for (; !error && walk != end; walk.increment(error)) addOwnerWrite(walk->path());

    // The copy works without a menu entry or a command on PATH; a missing one is worth a line, not
    // a failed install.
    try {
        if (!forEveryone) {
            writeDesktopEntry(destination, options.applicationsFolder);
        } else if (!options.systemApplicationsFolder.empty()) {
            makeSharedFolder(options.systemApplicationsFolder);
            writeDesktopEntry(destination, options.systemApplicationsFolder);
        }
    } catch (const InstallerError& failure) {
        log(failure.what());
    }
    if (forEveryone && !options.systemCommandFolder.empty()) {
        try {
            linkCommand(options.systemCommandFolder, destination / "bin" / "velmora-audio-helper");
        } catch (const InstallerError& failure) {
            log(failure.what());
        }
    }
    return destination;
}

bool runInstallOffer(const std::vector<std::string>& args,
                     const std::optional<std::filesystem::path>& executable,
                     InstallerFrontEnd& frontEnd, const InstallOptions& options) {
    if (std::find(args.begin(), args.end(), "--no-install") != args.end()) return false;
    if (!executable || !isOnReadOnlyFileSystem(*executable)) return false;

    const std::filesystem::path source = portableFolderOf(*executable);
    log("Running from a read-only location: " + source.string());

    const PlatformTexts& texts = PlatformTexts::current();
    if (!frontEnd.askToInstall("Install Velmora Audio Helper?",
                               std::string(texts.installOfferInformative))) {
        return false;
    }

    try {
        const std::filesystem::path installed = install(source, frontEnd, options);
        std::optional<DiskImageVolume> volume = diskImageVolume(source);
        log("Installed to " + installed.string() + "; ejecting " +
            (volume ? volume->mountPoint.string() : std::string("(no disk image)")));
        const std::filesystem::path installedExecutable =
            installed / executable->lexically_relative(source);
        // Start at login turned on from the image would start nothing once it is ejected.
        if (auto problem =
                AutostartEntry::followInstalledCopy(options.autostartFolder, installedExecutable)) {
            log("Start at login still names the old copy: " + *problem);
        }
        if (options.handOver) options.handOver(installedExecutable, volume);
        return true;
    } catch (const std::exception& failure) {
        // Folder, Trash and copy failures are InstallerErrors; anything else reads the same way.
        const std::string description = failure.what();
        log("Install failed: " + description);
        frontEnd.showFailure("Couldn't install Velmora Audio Helper",
                             description + "\n\n" + std::string(texts.installInsteadTip));
        return false;
    }
}

}  // namespace AppInstaller
}  // namespace velmora
