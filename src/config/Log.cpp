#include "config/Log.h"

#include <syslog.h>
#include <systemd/sd-journal.h>

#include <memory>
#include <mutex>
#include <string>

#include "config/AudioKit.h"
#include "config/LogFile.h"
#include "config/SerialQueue.h"

namespace velmora {
namespace {

// The journal fields and the file are fixed at first use, like the configuration they come from.
struct Logger {
    std::string subsystem;
    std::string category = "helper";
    LogFile file;
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
    shared.queue.post([text = std::move(text)] { logger().file.write(text); });
}

void flushLog() {
    Logger& shared = logger();
    if (shared.queue.isCurrent()) return;
    shared.queue.runAndWait([] {});
}

}  // namespace velmora
