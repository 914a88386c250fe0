#include "app/SettingsCommand.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>

#include "access/OriginPolicy.h"
#include "config/HelperInfo.h"
#include "config/HelperSettings.h"

namespace velmora {
namespace {

constexpr int exitDone = 0;
constexpr int exitFailed = 1;
constexpr int exitUsage = 2;

constexpr const char* acceptedShapes =
    "Origin patterns are http:// or https://, a host and an optional port, such as\n"
    "  https://app.example.com or http://localhost:3000,\n"
    "or a host followed by \":*\" for any port, such as http://localhost:*.\n"
    "Paths, queries, fragments, user names and \"*\" in the host are not accepted.";

// Where the settings are kept, for people.
std::string fileName(const HelperSettings& settings) {
    if (settings.isInMemory()) return "memory only (no home folder was found)";
    return settings.file().string();
}

void printUsage(std::ostream& stream, const HelperSettings& settings) {
    stream << "Usage: velmora-audio-helper settings [COMMAND]\n"
              "\n"
              "Shows or changes the helper's saved settings, kept in\n"
              "  "
           << fileName(settings)
           << "\n"
              "\n"
              "Commands:\n"
              "  (none)                  show the settings\n"
              "  set port N              listen on port N (1-65535) from the helper's next start\n"
              "  add-origin PATTERN      also allow web pages from PATTERN to connect\n"
              "  remove-origin PATTERN   stop allowing web pages from PATTERN\n"
              "  help                    show this help\n"
              "\n"
           << acceptedShapes << "\n";
}

int usageError(std::ostream& err, const HelperSettings& settings, const std::string& problem) {
    err << "velmora-audio-helper settings: " << problem << "\n\n";
    printUsage(err, settings);
    return exitUsage;
}

bool isBuiltIn(const std::string& pattern) {
    const auto& builtIn = HelperInfo::builtInOrigins();
    return std::find(builtIn.begin(), builtIn.end(), pattern) != builtIn.end();
}

// Saved entries that the helper skips because they are not acceptable patterns.
std::vector<std::string> ignoredEntries(const HelperSettings& settings) {
    std::vector<std::string> ignored;
    for (const std::string& entry : settings.savedExtraOrigins()) {
        if (!OriginPolicy::normalizePattern(entry)) ignored.push_back(entry);
    }
    return ignored;
}

int show(const HelperSettings& settings, std::ostream& out) {
    std::error_code error;
    bool exists = settings.isInMemory() || std::filesystem::exists(settings.file(), error);
    out << "Settings file:    " << fileName(settings) << (exists ? "" : " (not created yet)")
        << "\n";
    if (auto problem = settings.fileProblem()) {
        out << "                  The file can't be used (" << *problem
            << "), so the defaults below apply.\n"
               "                  The next change moves it aside and starts a new one.\n";
    }

    std::optional<std::int64_t> savedPort = settings.savedPort();
    out << "port:             " << settings.port();
    if (!savedPort) {
        out << " (default)";
    } else if (*savedPort != settings.port()) {
        out << " (default; the saved value " << *savedPort << " is not a port from 1 to 65535)";
    }
    out << "\n";

    std::vector<std::string> extra = settings.extraOrigins();
    out << "extraOrigins:     " << (extra.empty() ? "none" : extra.front()) << "\n";
    for (std::size_t index = 1; index < extra.size(); ++index) {
        out << "                  " << extra[index] << "\n";
    }
    for (const std::string& entry : ignoredEntries(settings)) {
        out << "                  (ignored, not an accepted pattern: \"" << entry << "\")\n";
    }

    out << "built-in origins: ";
    const auto& builtIn = HelperInfo::builtInOrigins();
    for (std::size_t index = 0; index < builtIn.size(); ++index) {
        out << (index == 0 ? "" : "                  ") << builtIn[index] << "\n";
    }
    out << "hasShownWelcome:  " << (settings.hasShownWelcome() ? "true" : "false") << "\n";
    return exitDone;
}

std::optional<std::int64_t> parsePort(const std::string& text) {
    std::int64_t value = 0;
    const char* begin = text.data();
    const char* end = text.data() + text.size();
    // Digits only: no sign, no blanks, no trailing text.
    if (text.empty() || !std::all_of(begin, end, [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    auto [stop, error] = std::from_chars(begin, end, value);
    if (error != std::errc() || stop != end || value < 1 || value > 65535) return std::nullopt;
    return value;
}

int setPort(const std::vector<std::string>& args, HelperSettings& settings, std::ostream& out,
            std::ostream& err) {
    if (args.size() < 2) return usageError(err, settings, "\"set\" needs a setting and a value.");
    if (args[1] != "port") {
        return usageError(err, settings,
                          "\"" + args[1] + "\" can't be set from here; only \"port\" can.");
    }
    if (args.size() != 3) {
        return usageError(err, settings, "\"set port\" takes exactly one value, the port number.");
    }
    std::optional<std::int64_t> port = parsePort(args[2]);
    if (!port) {
        err << "velmora-audio-helper settings: \"" << args[2]
            << "\" is not a port. Give a whole number from 1 to 65535.\n";
        return exitUsage;
    }
    if (!settings.setPort(*port)) {
        err << "velmora-audio-helper settings: couldn't save the port to " << fileName(settings)
            << " (the helper's log says why).\n";
        return exitFailed;
    }
    out << "Port set to " << *port
        << ". A running helper listens on it after it restarts or its listener starts again.\n";
    return exitDone;
}

std::optional<std::string> patternArgument(const std::vector<std::string>& args,
                                           HelperSettings& settings, std::ostream& err,
                                           int& exitCode) {
    if (args.size() != 2) {
        exitCode = usageError(err, settings, "\"" + args[0] + "\" takes exactly one pattern.");
        return std::nullopt;
    }
    std::optional<std::string> pattern = OriginPolicy::normalizePattern(args[1]);
    if (!pattern) {
        err << "velmora-audio-helper settings: \"" << args[1]
            << "\" is not an accepted origin pattern.\n"
            << acceptedShapes << "\n";
        exitCode = exitUsage;
    }
    return pattern;
}

// Saves a changed list and tells what became of entries the helper was already ignoring (they
// are not kept, since only accepted patterns are saved).
int saveOrigins(const std::vector<std::string>& origins, HelperSettings& settings,
                std::ostream& out, std::ostream& err) {
    std::vector<std::string> dropped = ignoredEntries(settings);
    if (!settings.setExtraOrigins(origins)) {
        err << "velmora-audio-helper settings: couldn't save the origins to " << fileName(settings)
            << " (the helper's log says why).\n";
        return exitFailed;
    }
    for (const std::string& entry : dropped) {
        out << "Removed \"" << entry
            << "\" from the saved list: it is not an accepted pattern and was being ignored.\n";
    }
    return exitDone;
}

int addOrigin(const std::vector<std::string>& args, HelperSettings& settings, std::ostream& out,
              std::ostream& err) {
    int exitCode = exitDone;
    std::optional<std::string> pattern = patternArgument(args, settings, err, exitCode);
    if (!pattern) return exitCode;
    if (isBuiltIn(*pattern)) {
        out << *pattern << " is built in and always allowed; nothing to add.\n";
        return exitDone;
    }
    std::vector<std::string> origins = settings.extraOrigins();
    if (std::find(origins.begin(), origins.end(), *pattern) != origins.end()) {
        out << *pattern << " is already allowed.\n";
        return exitDone;
    }
    origins.push_back(*pattern);
    exitCode = saveOrigins(origins, settings, out, err);
    if (exitCode == exitDone) {
        out << "Added " << *pattern << ". Pages from it can connect from now on.\n";
    }
    return exitCode;
}

int removeOrigin(const std::vector<std::string>& args, HelperSettings& settings, std::ostream& out,
                 std::ostream& err) {
    int exitCode = exitDone;
    std::optional<std::string> pattern = patternArgument(args, settings, err, exitCode);
    if (!pattern) return exitCode;
    if (isBuiltIn(*pattern)) {
        err << "velmora-audio-helper settings: " << *pattern
            << " is built in and always allowed; it can't be removed.\n";
        return exitFailed;
    }
    std::vector<std::string> origins = settings.extraOrigins();
    auto kept = std::remove(origins.begin(), origins.end(), *pattern);
    if (kept == origins.end()) {
        err << "velmora-audio-helper settings: " << *pattern
            << " is not among the extra origins; nothing changed.\n";
        return exitFailed;
    }
    origins.erase(kept, origins.end());
    exitCode = saveOrigins(origins, settings, out, err);
    if (exitCode == exitDone) {
        out << "Removed " << *pattern << ". New connections from it are refused from now on.\n";
    }
    return exitCode;
}

}  // namespace

int runSettingsCommand(const std::vector<std::string>& args, HelperSettings& settings,
                       std::ostream& out, std::ostream& err) {
    if (args.empty()) return show(settings, out);
    const std::string& command = args[0];
    if (command == "help" || command == "--help" || command == "-h") {
        if (args.size() != 1) return usageError(err, settings, "\"help\" takes no arguments.");
        printUsage(out, settings);
        return exitDone;
    }
    if (command == "set") return setPort(args, settings, out, err);
    if (command == "add-origin") return addOrigin(args, settings, out, err);
    if (command == "remove-origin") return removeOrigin(args, settings, out, err);
    return usageError(err, settings, "unknown command \"" + command + "\".");
}

}  // namespace velmora
