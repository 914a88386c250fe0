#include "app/installer/DesktopEntry.h"

#include "app/installer/InstallerError.h"
#include "config/PrivateFiles.h"

namespace velmora::AppInstaller {
namespace {

// Exec values quote paths that hold blanks or characters the field reserves.
std::string quotedForExec(const std::string& path) {
    if (path.find_first_of(" \t\"'\\$`;&|<>*?#()") == std::string::npos) return path;
    std::string quoted = "\"";
    for (char c : path) {
        if (c == '"' || c == '`' || c == '$' || c == '\\') quoted.push_back('\\');
        quoted.push_back(c);
    }
    quoted.push_back('"');
    return quoted;
}

}  // namespace

std::string desktopEntryText(const std::filesystem::path& installedFolder) {
    const std::filesystem::path executable = installedFolder / "bin" / "velmora-audio-helper";
    const std::filesystem::path icon =
        installedFolder / "share/icons/hicolor/scalable/apps/velmora-audio-helper.svg";
    std::string exec = quotedForExec(executable.string());
    // Exec escapes a backslash twice: once for the string, once for the field.
    std::string execField;
    for (char c : exec) {
        if (c == '\\') execField.push_back('\\');
        execField.push_back(c);
    }
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Velmora Audio Helper\n"
           "Comment=Gives Velmora web pages your computer's sound for transcription\n"
           "Exec=" +
           execField +
           "\n"
           "Icon=" +
           icon.string() +
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
