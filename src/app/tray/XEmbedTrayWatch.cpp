#include "app/tray/XEmbedTrayWatch.h"

#include <xcb/xcb.h>

#include <QCoreApplication>
#include <QGuiApplication>
#include <cstdlib>
#include <memory>
#include <string>

namespace velmora {
namespace {

struct FreeReply {
    void operator()(void* reply) const { std::free(reply); }
};
template <typename Reply>
using ReplyPointer = std::unique_ptr<Reply, FreeReply>;

std::uint32_t atom(xcb_connection_t* connection, const std::string& name) {
    ReplyPointer<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
        connection,
        xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(name.size()), name.c_str()),
        nullptr));
    return reply ? reply->atom : 0;
}

// The screen DISPLAY names (":0.1" is screen 1); Qt's connection uses the same one.
int screenNumber() {
    const char* display = std::getenv("DISPLAY");
    if (display == nullptr) return 0;
    std::string value = display;
    std::size_t colon = value.rfind(':');
    std::size_t dot = value.find('.', colon == std::string::npos ? 0 : colon);
    if (dot == std::string::npos) return 0;
    return std::atoi(value.c_str() + dot + 1);
}

}  // namespace

XEmbedTrayWatch* XEmbedTrayWatch::createForThisDisplay(QObject* parent) {
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (x11 == nullptr || x11->connection() == nullptr) return nullptr;
    xcb_connection_t* connection = x11->connection();
    int screen = screenNumber();
    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int index = 0; index < screen && screens.rem > 1; ++index) xcb_screen_next(&screens);
    std::uint32_t selection = atom(connection, "_NET_SYSTEM_TRAY_S" + std::to_string(screen));
    std::uint32_t manager = atom(connection, "MANAGER");
    if (screens.data == nullptr || selection == 0 || manager == 0) return nullptr;
    return new XEmbedTrayWatch(connection, screens.data->root, selection, manager, parent);
}

XEmbedTrayWatch::XEmbedTrayWatch(xcb_connection_t* connection, std::uint32_t root,
                                 std::uint32_t selection, std::uint32_t manager, QObject* parent)
    : QObject(parent),
      connection_(connection),
      root_(root),
      selection_(selection),
      manager_(manager) {
    // MANAGER messages go to the root window with the structure mask.
    addStructureEvents(root_);
    QCoreApplication::instance()->installNativeEventFilter(this);
    lookForOwner();
}

XEmbedTrayWatch::~XEmbedTrayWatch() {
    if (QCoreApplication::instance() != nullptr) {
        QCoreApplication::instance()->removeNativeEventFilter(this);
    }
}

void XEmbedTrayWatch::addStructureEvents(std::uint32_t window) {
    // Adds to what Qt's connection already asks of the window, rather than replacing it.
    ReplyPointer<xcb_get_window_attributes_reply_t> attributes(xcb_get_window_attributes_reply(
        connection_, xcb_get_window_attributes(connection_, window), nullptr));
    if (!attributes) return;
    std::uint32_t mask = attributes->your_event_mask | XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection_, window, XCB_CW_EVENT_MASK, &mask);
    xcb_flush(connection_);
}

void XEmbedTrayWatch::lookForOwner() {
    ReplyPointer<xcb_get_selection_owner_reply_t> reply(xcb_get_selection_owner_reply(
        connection_, xcb_get_selection_owner(connection_, selection_), nullptr));
    std::uint32_t owner = reply ? reply->owner : 0;
    if (owner == owner_) return;
    owner_ = owner;
    // Its window's end is the tray's end.
    if (owner_ != 0) addStructureEvents(owner_);
    Q_EMIT trayChanged();
}

bool XEmbedTrayWatch::nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) {
    if (eventType != "xcb_generic_event_t") return false;
    auto* event = static_cast<xcb_generic_event_t*>(message);
    switch (event->response_type & ~0x80) {
        case XCB_CLIENT_MESSAGE: {
            auto* client = reinterpret_cast<xcb_client_message_event_t*>(event);
            if (client->type == manager_ && client->data.data32[1] == selection_) {
                lookForOwner();
            }
            break;
        }
        case XCB_DESTROY_NOTIFY: {
            auto* destroyed = reinterpret_cast<xcb_destroy_notify_event_t*>(event);
            if (owner_ != 0 && destroyed->window == owner_) lookForOwner();
            break;
        }
        default:
            break;
    }
    return false;
}

}  // namespace velmora
