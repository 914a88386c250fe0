#include "config/Log.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "config/AudioKit.h"
#include "config/LogFile.h"
#include "config/SerialQueue.h"
#include "config/SystemLog.h"
#include "config/UserFolders.h"

namespace velmora {
namespace {

// The system log's tags and the file are fixed at first use, like the configuration they come
// from.
struct Logger {
    std::unique_ptr<SystemLog> systemLog;
    LogFile file;
    // Whether a refused log file was reported to the system log; touched on the queue only.
    bool refusalReported = false;
    SerialQueue queue{"com.velmora.audiokit.log"};

    Logger()
        : systemLog(SystemLog::platform(AudioKit::config().logSubsystem, "helper")),
          file(LogFile::defaultFolder(), AudioKit::config().logFileName) {}

    // At process exit, lines still queued are written rather than dropped with the queue.
    ~Logger() {
        if (queue.isCurrent()) return;
        try {
            queue.runAndWait([] {});
        } catch (...) {
        }
    }
};

Logger& logger() {
    static Logger instance;
    return instance;
}

}  // namespace

void log(std::string_view message) {
    Logger& shared = logger();
    std::string text(message);
    shared.systemLog->send(text);
    if (shared.file.path().empty() && UserFolders::claimNoHomeNotice()) {
        shared.systemLog->send(UserFolders::noHomeNotice);
    }
    shared.queue.post([text = std::move(text)] {
        Logger& owner = logger();
        std::optional<std::string> refusal = owner.file.write(text);
        // Said once: every later line meets the same refusal.
        if (refusal && !owner.refusalReported) {
            owner.refusalReported = true;
            owner.systemLog->send(*refusal);
        }
    });
}

std::string visibleInLog(std::string_view value) {
    std::string line;
    line.reserve(value.size());
    char escaped[8];
    for (std::size_t at = 0; at < value.size(); ++at) {
        auto byte = static_cast<unsigned char>(value[at]);
        if (byte == '\n') {
            line += "\\n";
        } else if (byte == '\r') {
            line += "\\r";
        } else if (byte == '\t') {
            line += "\\t";
        } else if (byte < 0x20 || byte == 0x7f) {
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            line += escaped;
        } else if (byte == 0xc2 && at + 1 < value.size() &&
                   static_cast<unsigned char>(value[at + 1]) >= 0x80 &&
                   static_cast<unsigned char>(value[at + 1]) <= 0x9f) {
            // U+0080...U+009F in UTF-8: the C1 controls, which some terminals obey too.
            std::snprintf(escaped, sizeof escaped, "\\u%04x",
                          static_cast<unsigned char>(value[at + 1]));
            line += escaped;
            ++at;
        } else {
            line += static_cast<char>(byte);
        }
    }
    return line;
}

void flushLog() {
    Logger& shared = logger();
    if (shared.queue.isCurrent()) return;
    shared.queue.runAndWait([] {});
}

}  // namespace velmora
