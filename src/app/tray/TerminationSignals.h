#pragma once

#include <QSocketNotifier>
#include <functional>
#include <memory>

namespace velmora {

// Turns SIGTERM (the session ending), SIGINT and SIGHUP into a call on the Qt main thread. The
// signal handler only writes the signal's number into a pipe, which is all it may safely do;
// the event loop reads it. One instance per process.
class TerminationSignals final {
  public:
    explicit TerminationSignals(std::function<void(int signal)> received);
    ~TerminationSignals();

    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;

  private:
    void readPending();

    int readEnd_ = -1;
    std::function<void(int)> received_;
    std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace velmora
