#include <syslog.h>
#include <systemd/sd-journal.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "config/SystemLog.h"

namespace velmora {
namespace {

// The systemd journal, with the subsystem and category as fields of their own.
class JournalSystemLog final : public SystemLog {
  public:
    JournalSystemLog(std::string subsystem, std::string category)
        : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

    void send(const std::string& message) override {
        // The journal library opens its socket on first use, guarded by an atomic that the
        // thread checker cannot see; sending the first message under a once-flag orders every
        // later send after that opening for it as well.
        bool sent = false;
        std::call_once(firstSend_, [&] {
            sendNow(message);
            sent = true;
        });
        if (!sent) sendNow(message);
    }

  private:
    void sendNow(const std::string& message) const {
        // Without a journal (containers, CI) this fails quickly and is ignored.
        sd_journal_send("MESSAGE=%s", message.c_str(), "PRIORITY=%i", LOG_NOTICE,
                        "SYSLOG_IDENTIFIER=velmora-audio-helper", "VELMORA_SUBSYSTEM=%s",
                        subsystem_.c_str(), "VELMORA_CATEGORY=%s", category_.c_str(), nullptr);
    }

    const std::string subsystem_;
    const std::string category_;
    std::once_flag firstSend_;
};

}  // namespace

std::unique_ptr<SystemLog> SystemLog::platform(std::string subsystem, std::string category) {
    return std::make_unique<JournalSystemLog>(std::move(subsystem), std::move(category));
}

}  // namespace velmora
