#include "app/tray/MainThreadStatusRelay.h"

#include <QMetaObject>

namespace velmora {

MainThreadStatusRelay::MainThreadStatusRelay(QObject* receiver) : gate_(std::make_shared<Gate>()) {
    gate_->receiver = receiver;
}

MainThreadStatusRelay::~MainThreadStatusRelay() {
    std::lock_guard lock(gate_->mutex);
    gate_->receiver = nullptr;
}

HelperServer::StatusHandler MainThreadStatusRelay::handlerFor(
    std::function<void(const HelperStatus&)> onMainThread) {
    return [gate = gate_, onMainThread = std::move(onMainThread)](const HelperStatus& status) {
        // Held while posting only: posting is thread-safe, and Qt drops events of a receiver
        // that is deleted before they run.
        std::lock_guard lock(gate->mutex);
        if (gate->receiver == nullptr) return;
        QMetaObject::invokeMethod(
            gate->receiver, [onMainThread, status] { onMainThread(status); }, Qt::QueuedConnection);
    };
}

}  // namespace velmora
