#include "app/tray/TerminationSignals.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>

namespace velmora {
namespace {

constexpr int handledSignals[] = {SIGTERM, SIGINT, SIGHUP};

volatile sig_atomic_t writeEnd = -1;

void noteSignal(int signal) {
    int savedErrno = errno;
    unsigned char number = static_cast<unsigned char>(signal);
    // A full pipe already holds a wake-up; losing this byte loses nothing.
    [[maybe_unused]] ssize_t written = ::write(writeEnd, &number, 1);
    errno = savedErrno;
}

}  // namespace

TerminationSignals::TerminationSignals(std::function<void(int signal)> received)
    : received_(std::move(received)) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::runtime_error(std::string("Could not create the signal pipe: ") +
                                 std::strerror(errno));
    }
    readEnd_ = ends[0];
    writeEnd = ends[1];
    notifier_ = std::make_unique<QSocketNotifier>(readEnd_, QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, [this] { readPending(); });

    struct sigaction action {};
    action.sa_handler = noteSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : handledSignals) ::sigaction(signal, &action, nullptr);
}

TerminationSignals::~TerminationSignals() {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    for (int signal : handledSignals) ::sigaction(signal, &action, nullptr);
    notifier_.reset();
    ::close(writeEnd);
    writeEnd = -1;
    ::close(readEnd_);
}

void TerminationSignals::readPending() {
    unsigned char number = 0;
    while (::read(readEnd_, &number, 1) == 1) received_(number);
}

}  // namespace velmora
