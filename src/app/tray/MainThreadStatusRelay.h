#pragma once

#include <QObject>
#include <functional>
#include <memory>
#include <mutex>

#include "server/HelperServer.h"

namespace velmora {

// Hands the server's statuses to the Qt main thread: the server calls the handler on its own
// main queue's thread, and the relay posts each status, in order, into the Qt event loop of
// `receiver`. Once the relay is gone nothing more is posted, so the receiver may then go too.
class MainThreadStatusRelay final {
  public:
    explicit MainThreadStatusRelay(QObject* receiver);
    ~MainThreadStatusRelay();

    MainThreadStatusRelay(const MainThreadStatusRelay&) = delete;
    MainThreadStatusRelay& operator=(const MainThreadStatusRelay&) = delete;

    // A handler for HelperServer::setOnStatus that runs `onMainThread` in the receiver's thread.
    HelperServer::StatusHandler handlerFor(std::function<void(const HelperStatus&)> onMainThread);

  private:
    struct Gate {
        std::mutex mutex;
        QObject* receiver;
    };
    std::shared_ptr<Gate> gate_;
};

}  // namespace velmora
