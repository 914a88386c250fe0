#include "config/Log.h"

#include <syslog.h>
#include <systemd/sd-journal.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "config/AudioKit.h"
#include "config/LogFile.h"
#include "config/SerialQueue.h"
#include "config/UserFolders.h"

namespace velmora {
namespace {

// The journal fields and the file are fixed at first use, like the configuration they come from.
struct Logger {
    std::string subsystem;
    std::string category = "helper";
    LogFile file;
    // Whether a refused log file was reported to the journal; touched on the queue only.
    bool refusalReported = false;
    SerialQueue queue{"com.velmora.audiokit.log"};

    Logger()
        : subsystem(AudioKit::config().logSubsystem),
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

void sendToJournal(const Logger& shared, const std::string& text) {
    // Without a journal (containers, CI) this fails quickly and is ignored.
    sd_journal_send("MESSAGE=%s", text.c_str(), "PRIORITY=%i", LOG_NOTICE,
                    "SYSLOG_IDENTIFIER=velmora-audio-helper", "VELMORA_SUBSYSTEM=%s",
                    shared.subsystem.c_str(), "VELMORA_CATEGORY=%s", shared.category.c_str(),
                    nullptr);
}

}  // namespace

void log(std::string_view message) {
    Logger& shared = logger();
    std::string text(message);
    // The journal library opens its socket on first use, guarded by an atomic that the thread
    // checker cannot see; sending the first message under a once-flag orders every later send
    // after that opening for it as well.
    static std::once_flag firstSend;
    bool sent = false;
    std::call_once(firstSend, [&] {
        sendToJournal(shared, text);
        sent = true;
    });
    if (!sent) sendToJournal(shared, text);
    if (shared.file.path().empty() && UserFolders::claimNoHomeNotice()) {
        sendToJournal(shared, UserFolders::noHomeNotice);
    }
    shared.queue.post([text = std::move(text)] {
        Logger& owner = logger();
        std::optional<std::string> refusal = owner.file.write(text);
        // Said once: every later line meets the same refusal.
        if (refusal && !owner.refusalReported) {
            owner.refusalReported = true;
            sendToJournal(owner, *refusal);
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
