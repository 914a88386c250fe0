#include "app/installer/DesktopEntry.h"

#include "app/installer/ExecValue.h"
#include "app/installer/InstallerError.h"
#include "config/PrivateFiles.h"

namespace velmora::AppInstaller {

std::string desktopEntryText(const std::filesystem::path& installedFolder) {
    const std::filesystem::path executable = installedFolder / "bin" / "velmora-audio-helper";
    const std::filesystem::path icon =
        installedFolder / "share/icons/hicolor/scalable/apps/velmora-audio-helper.svg";
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Velmora Audio Helper\n"
           "Comment=Gives Velmora web pages your computer's sound for transcription\n"
           "Exec=" +
           execValue({executable.string()}) +
           "\n"
           "Icon=" +
           stringValue(icon.string()) +
           "\n"
           "Terminal=false\n"
           "Categories=AudioVideo;Audio;\n"
           "StartupNotify=false\n";
}

std::filesystem::path writeDesktopEntry(const std::filesystem::path& installedFolder,
                                        const std::filesystem::path& applicationsFolder) {
    const std::filesystem::path file = applicationsFolder / "velmora-audio-helper.desktop";
    // Readable by the desktop; written beside the old entry and renamed over it, never through
    // a link planted in its place. The applications folder is shared with other programs, so
    // an existing one keeps its mode.
    if (auto failure = PrivateFiles::replace(file, desktopEntryText(installedFolder), 0644,
                                             /*narrowFolder=*/false)) {
        throw InstallerError("Couldn't write the menu entry " + file.string() + " (" + *failure +
                             ").");
    }
    return file;
}

}  // namespace velmora::AppInstaller
