#include "app/installer/AutostartEntry.h"

#include <fcntl.h>
#include <unistd.h>

#include <sstream>

#include "app/installer/ExecValue.h"
#include "config/PrivateFiles.h"
#include "config/UserFolders.h"

namespace velmora::AutostartEntry {
namespace {

std::string trimmed(const std::string& text) {
    auto first = text.find_first_not_of(" \t");
    auto last = text.find_last_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

bool has(const Keys& keys, const char* key, const char* value) {
    auto found = keys.find(key);
    return found != keys.end() && found->second == value;
}

}  // namespace

std::filesystem::path defaultFolder() {
    std::optional<std::filesystem::path> configHome = UserFolders::configHome();
    return configHome ? *configHome / "autostart" : std::filesystem::path();
}

std::optional<Keys> read(const std::filesystem::path& file) {
    PrivateFiles::Opened opened = PrivateFiles::open(file, O_RDONLY);
    if (!opened) return std::nullopt;
    std::string content;
    char buffer[4096];
    for (ssize_t count; (count = ::read(opened.descriptor, buffer, sizeof buffer)) > 0;) {
        content.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(opened.descriptor);
    std::istringstream stream(content);
    Keys keys;
    bool inMainGroup = false;
    std::string line;
    while (std::getline(stream, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line.front() == '#') continue;
        if (line.front() == '[') {
            inMainGroup = line == "[Desktop Entry]";
            continue;
        }
        auto equals = line.find('=');
        if (!inMainGroup || equals == std::string::npos) continue;
        keys.emplace(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
    }
    return keys;
}

bool isOurs(const Keys& keys) {
    return has(keys, markerKey, "true");
}

bool isSwitchedOff(const Keys& keys) {
    return has(keys, "Hidden", "true") || has(keys, "X-GNOME-Autostart-enabled", "false");
}

std::optional<std::filesystem::path> runnableProgram(const Keys& keys) {
    auto exec = keys.find("Exec");
    if (exec == keys.end()) return std::nullopt;
    std::optional<std::vector<std::string>> arguments = AppInstaller::execArguments(exec->second);
    if (!arguments || arguments->empty()) return std::nullopt;
    std::filesystem::path program = arguments->front();
    std::error_code error;
    if (!program.is_absolute() || !std::filesystem::is_regular_file(program, error) ||
        ::access(program.c_str(), X_OK) != 0) {
        return std::nullopt;
    }
    return program;
}

std::string text(const std::filesystem::path& executable) {
    std::ostringstream text;
    text << "[Desktop Entry]\n"
            "Type=Application\n"
            "Name=Velmora Audio Helper\n"
            "Comment=Gives Velmora your computer's audio during online meetings\n"
         << "Exec=" << AppInstaller::execValue({executable.string(), "--no-welcome"}) << "\n"
         << "TryExec=" << AppInstaller::stringValue(executable.string()) << "\n"
         << "Icon=velmora-audio-helper\n"
            "Terminal=false\n"
            "X-GNOME-Autostart-enabled=true\n"
         << markerKey << "=true\n";
    return text.str();
}

std::optional<std::string> write(const std::filesystem::path& folder,
                                 const std::filesystem::path& executable) {
    if (folder.empty()) return "No home folder was found to keep the autostart entry in.";
    // Readable by the desktop session; written beside the entry and renamed over it, so the
    // desktop never reads half a file and a link planted in its place is never written through.
    // The autostart folder is shared with other programs, so an existing one keeps its mode.
    if (auto failure = PrivateFiles::makeFolder(folder, /*narrowExisting=*/false)) {
        return "Could not create " + folder.string() + ": it " + *failure + ".";
    }
    const std::filesystem::path file = folder / fileName;
    if (auto failure = PrivateFiles::replace(file, text(executable), 0644,
                                             /*narrowFolder=*/false)) {
        return "Could not write " + file.string() + ": " + *failure + ".";
    }
    return std::nullopt;
}

std::optional<std::string> followInstalledCopy(const std::filesystem::path& folder,
                                               const std::filesystem::path& executable) {
    if (folder.empty()) return std::nullopt;
    std::optional<Keys> keys = read(folder / fileName);
    if (!keys || !isOurs(*keys) || isSwitchedOff(*keys)) return std::nullopt;
    return write(folder, executable);
}

}  // namespace velmora::AutostartEntry
