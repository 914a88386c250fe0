#include "SessionManagerStandIn.h"

#include <X11/ICE/ICElib.h>
#include <X11/SM/SMlib.h>
#include <poll.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace velmora::testing {
namespace {

Bool acceptAnyHost(char*) {
    return True;
}

SessionManagerStandIn& managerOf(SmPointer data) {
    return *static_cast<SessionManagerStandIn*>(data);
}

Status registerClient(SmsConn connection, SmPointer data, char* previousId) {
    std::free(previousId);
    char* id = SmsGenerateClientID(connection);
    if (id == nullptr) return 0;
    SmsRegisterClientReply(connection, id);
    std::free(id);
    // As session managers do: a new client is asked to save its state at once.
    SmsSaveYourself(connection, SmSaveLocal, False, SmInteractStyleNone, False);
    managerOf(data).registered();
    return 1;
}

void setProperties(SmsConn, SmPointer data, int count, SmProp** properties) {
    for (int i = 0; i < count; ++i) {
        if (std::strcmp(properties[i]->name, SmRestartStyleHint) == 0 &&
            properties[i]->num_vals > 0 && properties[i]->vals[0].length > 0) {
            managerOf(data).propertiesSet(
                *static_cast<unsigned char*>(properties[i]->vals[0].value));
        }
        SmFreeProperty(properties[i]);
    }
    std::free(properties);
}

void saveYourselfDone(SmsConn connection, SmPointer data, Bool) {
    SmsSaveComplete(connection);
    managerOf(data).saveDone();
}

void interactRequest(SmsConn connection, SmPointer, int) {
    SmsInteract(connection);
}
void interactDone(SmsConn, SmPointer, Bool) {}
void saveYourselfRequest(SmsConn, SmPointer, int, Bool, int, Bool, Bool) {}
void saveYourselfPhase2Request(SmsConn connection, SmPointer) {
    SmsSaveYourselfPhase2(connection);
}
void closeConnection(SmsConn connection, SmPointer, int count, char** reasons) {
    SmFreeReasons(count, reasons);
    SmsCleanUp(connection);
}
void deleteProperties(SmsConn, SmPointer, int count, char** names) {
    for (int i = 0; i < count; ++i) std::free(names[i]);
    std::free(names);
}
void getProperties(SmsConn connection, SmPointer) {
    SmsReturnProperties(connection, 0, nullptr);
}

Status newClient(SmsConn, SmPointer data, unsigned long* mask, SmsCallbacks* callbacks,
                 char** failure) {
    *failure = nullptr;
    *mask = SmsRegisterClientProcMask | SmsInteractRequestProcMask | SmsInteractDoneProcMask |
            SmsSaveYourselfRequestProcMask | SmsSaveYourselfP2RequestProcMask |
            SmsSaveYourselfDoneProcMask | SmsCloseConnectionProcMask | SmsSetPropertiesProcMask |
            SmsDeletePropertiesProcMask | SmsGetPropertiesProcMask;
    callbacks->register_client = {registerClient, data};
    callbacks->interact_request = {interactRequest, data};
    callbacks->interact_done = {interactDone, data};
    callbacks->save_yourself_request = {saveYourselfRequest, data};
    callbacks->save_yourself_phase2_request = {saveYourselfPhase2Request, data};
    callbacks->save_yourself_done = {saveYourselfDone, data};
    callbacks->close_connection = {closeConnection, data};
    callbacks->set_properties = {setProperties, data};
    callbacks->delete_properties = {deleteProperties, data};
    callbacks->get_properties = {getProperties, data};
    return 1;
}

}  // namespace

SessionManagerStandIn::SessionManagerStandIn() {
    char error[256] = {};
    if (!SmsInitialize("velmora-test", "1.0", newClient, this, acceptAnyHost, sizeof error,
                       error)) {
        throw std::runtime_error(std::string("SmsInitialize failed: ") + error);
    }
    IceListenObj* listeners = nullptr;
    if (!IceListenForConnections(&listenerCount_, &listeners, sizeof error, error)) {
        throw std::runtime_error(std::string("IceListenForConnections failed: ") + error);
    }
    listeners_ = listeners;
    for (int i = 0; i < listenerCount_; ++i) IceSetHostBasedAuthProc(listeners[i], acceptAnyHost);
    char* ids = IceComposeNetworkIdList(listenerCount_, listeners);
    address_ = ids;
    std::free(ids);
}

SessionManagerStandIn::~SessionManagerStandIn() {
    for (void* connection : connections_) {
        IceSetShutdownNegotiation(static_cast<IceConn>(connection), False);
        IceCloseConnection(static_cast<IceConn>(connection));
    }
    IceFreeListenObjs(listenerCount_, static_cast<IceListenObj*>(listeners_));
}

void SessionManagerStandIn::turn(std::chrono::milliseconds slice) {
    auto* listeners = static_cast<IceListenObj*>(listeners_);
    std::vector<pollfd> watched;
    for (void* connection : connections_) {
        watched.push_back({IceConnectionNumber(static_cast<IceConn>(connection)), POLLIN, 0});
    }
    for (int i = 0; i < listenerCount_; ++i) {
        watched.push_back({IceGetListenConnectionNumber(listeners[i]), POLLIN, 0});
    }
    if (::poll(watched.data(), watched.size(), static_cast<int>(slice.count())) <= 0) return;
    std::vector<void*> open;
    for (std::size_t i = 0; i < connections_.size(); ++i) {
        auto connection = static_cast<IceConn>(connections_[i]);
        if ((watched[i].revents & (POLLIN | POLLHUP)) &&
            IceProcessMessages(connection, nullptr, nullptr) == IceProcessMessagesIOError) {
            IceSetShutdownNegotiation(connection, False);
            IceCloseConnection(connection);
            continue;
        }
        open.push_back(connection);
    }
    for (int i = 0; i < listenerCount_; ++i) {
        if (!(watched[connections_.size() + static_cast<std::size_t>(i)].revents & POLLIN))
            continue;
        IceAcceptStatus status;
        IceConn connection = IceAcceptConnection(listeners[i], &status);
        if (connection != nullptr && status == IceAcceptSuccess) open.push_back(connection);
    }
    connections_ = std::move(open);
}

}  // namespace velmora::testing
