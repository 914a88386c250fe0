#include "config/Log.h"

#include <syslog.h>
#include <systemd/sd-journal.h>

#include <memory>
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

}  // namespace

void log(std::string_view message) {
    Logger& shared = logger();
    std::string text(message);
    // Without a journal (containers, CI) this fails quickly and is ignored.
    sd_journal_send("MESSAGE=%s", text.c_str(), "PRIORITY=%i", LOG_NOTICE,
                    "SYSLOG_IDENTIFIER=velmora-audio-helper", "VELMORA_SUBSYSTEM=%s",
                    shared.subsystem.c_str(), "VELMORA_CATEGORY=%s", shared.category.c_str(),
                    nullptr);
    shared.queue.post([text = std::move(text)] { logger().file.write(text); });
}

void flushLog() {
    Logger& shared = logger();
    if (shared.queue.isCurrent()) return;
    shared.queue.runAndWait([] {});
}

}  // namespace velmora
