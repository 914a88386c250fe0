#include "app/XdgAutostartLoginItem.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>

namespace velmora {
namespace {

constexpr const char* entryName = "velmora-audio-helper.desktop";

std::filesystem::path runningExecutable() {
    std::error_code error;
    std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::filesystem::path("velmora-audio-helper") : path;
}

// The keys of the [Desktop Entry] group; absent when the file can't be read.
std::optional<std::map<std::string, std::string>> readEntry(const std::filesystem::path& file) {
    std::ifstream stream(file);
    if (!stream) return std::nullopt;
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
    const char* configHome = std::getenv("XDG_CONFIG_HOME");
    if (configHome != nullptr && configHome[0] == '/') {
        return std::filesystem::path(configHome) / "autostart";
    }
    const char* home = std::getenv("HOME");
    return std::filesystem::path(home != nullptr ? home : "/") / ".config" / "autostart";
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
    std::error_code error;
    std::filesystem::create_directories(folder_, error);
    if (error) fail("create", folder_, error);

    // Written beside the entry and renamed over it, so the desktop never reads half a file.
    std::filesystem::path partial = entryFile_;
    partial += ".partial";
    {
        std::ofstream stream(partial, std::ios::binary | std::ios::trunc);
        if (!stream) fail("write", partial, std::error_code(errno, std::generic_category()));
        stream << entryText(executable_);
        stream.flush();
        if (!stream) {
            auto writeError = std::error_code(errno, std::generic_category());
            std::filesystem::remove(partial, error);
            fail("write", partial, writeError);
        }
    }
    std::filesystem::rename(partial, entryFile_, error);
    if (error) {
        std::error_code ignored;
        std::filesystem::remove(partial, ignored);
        fail("write", entryFile_, error);
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
