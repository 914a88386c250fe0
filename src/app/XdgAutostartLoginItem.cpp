#include "app/XdgAutostartLoginItem.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>

#include "config/PrivateFiles.h"
#include "config/UserFolders.h"

namespace velmora {
namespace {

constexpr const char* entryName = "velmora-audio-helper.desktop";

std::filesystem::path runningExecutable() {
    std::error_code error;
    std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::filesystem::path("velmora-audio-helper") : path;
}

// The keys of the [Desktop Entry] group; absent when the file can't be read or is not this
// user's regular file.
std::optional<std::map<std::string, std::string>> readEntry(const std::filesystem::path& file) {
    PrivateFiles::Opened opened = PrivateFiles::open(file, O_RDONLY);
    if (!opened) return std::nullopt;
    std::string content;
    char buffer[4096];
    for (ssize_t count; (count = ::read(opened.descriptor, buffer, sizeof buffer)) > 0;) {
        content.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(opened.descriptor);
    std::istringstream stream(content);
    std::map<std::string, std::string> keys;
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
        auto trimmed = [](std::string text) {
            auto first = text.find_first_not_of(" \t");
            auto last = text.find_last_not_of(" \t");
            return first == std::string::npos ? std::string()
                                              : text.substr(first, last - first + 1);
        };
        keys.emplace(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
    }
    return keys;
}

bool isSwitchedOff(const std::map<std::string, std::string>& keys) {
    auto has = [&](const char* key, const char* value) {
        auto found = keys.find(key);
        return found != keys.end() && found->second == value;
    };
    return has("Hidden", "true") || has("X-GNOME-Autostart-enabled", "false");
}

bool isOurs(const std::map<std::string, std::string>& keys) {
    auto found = keys.find(XdgAutostartLoginItem::markerKey);
    return found != keys.end() && found->second == "true";
}

// An Exec argument quoted as the desktop entry format asks, so paths with spaces survive.
std::string quotedArgument(const std::string& argument) {
    std::string quoted = "\"";
    for (char character : argument) {
        if (character == '"' || character == '`' || character == '$' || character == '\\') {
            quoted += '\\';
        }
        quoted += character;
    }
    return quoted + '"';
}

std::string entryText(const std::filesystem::path& executable) {
    std::ostringstream text;
    text << "[Desktop Entry]\n"
            "Type=Application\n"
            "Name=Velmora Audio Helper\n"
            "Comment=Gives Velmora your computer's audio during online meetings\n"
         << "Exec=" << quotedArgument(executable.string()) << " --no-welcome\n"
         << "TryExec=" << executable.string() << "\n"
         << "Icon=velmora-audio-helper\n"
            "Terminal=false\n"
            "X-GNOME-Autostart-enabled=true\n"
         << XdgAutostartLoginItem::markerKey << "=true\n";
    return text.str();
}

[[noreturn]] void fail(const std::string& what, const std::filesystem::path& path,
                       const std::error_code& error) {
    throw LoginItemError("Could not " + what + " " + path.string() + ": " + error.message() + ".");
}

}  // namespace

XdgAutostartLoginItem::XdgAutostartLoginItem()
    : XdgAutostartLoginItem(defaultAutostartFolder(), runningExecutable()) {}

XdgAutostartLoginItem::XdgAutostartLoginItem(std::filesystem::path autostartFolder,
                                             std::filesystem::path executable)
    : folder_(std::move(autostartFolder)),
      entryFile_(folder_ / entryName),
      executable_(std::move(executable)) {}

std::filesystem::path XdgAutostartLoginItem::defaultAutostartFolder() {
    std::optional<std::filesystem::path> configHome = UserFolders::configHome();
    return configHome ? *configHome / "autostart" : std::filesystem::path();
}

LoginItemService::Status XdgAutostartLoginItem::status() {
    auto keys = readEntry(entryFile_);
    if (!keys || isSwitchedOff(*keys)) return Status::notRegistered;
    return Status::enabled;
}

void XdgAutostartLoginItem::registerItem() {
    if (auto keys = readEntry(entryFile_); keys && !isOurs(*keys)) {
        if (!isSwitchedOff(*keys)) return;  // someone else's entry starts us already
        throw LoginItemError(entryFile_.string() +
                             " was not written by Velmora Audio Helper and switches it off; it "
                             "was left unchanged.");
    }
    if (folder_.empty()) {
        throw LoginItemError("No home folder was found to keep the autostart entry in.");
    }
    // Readable by the desktop session; written beside the entry and renamed over it, so the
    // desktop never reads half a file and a link planted in its place is never written through.
    // The autostart folder is shared with other programs, so an existing one keeps its mode.
    if (auto failure = PrivateFiles::makeFolder(folder_, /*narrowExisting=*/false)) {
        throw LoginItemError("Could not create " + folder_.string() + ": it " + *failure + ".");
    }
    if (auto failure = PrivateFiles::replace(entryFile_, entryText(executable_), 0644,
                                             /*narrowFolder=*/false)) {
        throw LoginItemError("Could not write " + entryFile_.string() + ": " + *failure + ".");
    }
}

void XdgAutostartLoginItem::unregisterItem() {
    auto keys = readEntry(entryFile_);
    if (!keys || isSwitchedOff(*keys)) return;
    if (!isOurs(*keys)) {
        throw LoginItemError(entryFile_.string() +
                             " was not written by Velmora Audio Helper; it was left unchanged. "
                             "Remove it to stop the helper starting at login.");
    }
    std::error_code error;
    std::filesystem::remove(entryFile_, error);
    if (error) fail("remove", entryFile_, error);
}

}  // namespace velmora
