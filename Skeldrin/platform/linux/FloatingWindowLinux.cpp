#include "Skeldrin/platform/FloatingWindow.h"

#include <QGuiApplication>
#include <QLoggingCategory>
#include <QWidget>
#include <QtGui/qguiapplication_platform.h>
#include <xcb/xcb.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

Q_LOGGING_CATEGORY(lcFloating, "app.skeldrin.floating")

namespace skeldrin {

namespace {

xcb_atom_t atom(xcb_connection_t* c, const char* name)
{
    const auto cookie = xcb_intern_atom(c, 0, std::uint16_t(std::strlen(name)), name);
    xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(c, cookie, nullptr);
    const xcb_atom_t value = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    std::free(reply);
    return value;
}

// Asks the window manager to add a state to a mapped window (EWMH client message).
void addState(xcb_connection_t* c, xcb_window_t root, xcb_window_t window, xcb_atom_t wmState,
              xcb_atom_t state)
{
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = wmState;
    event.data.data32[0] = 1; // _NET_WM_STATE_ADD
    event.data.data32[1] = state;
    event.data.data32[3] = 1; // from a normal application
    xcb_send_event(c, 0, root, XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char*>(&event));
}

} // namespace

void makeFloating(QWidget& window)
{
    if (QGuiApplication::platformName() != QLatin1String("xcb")) return;
    auto* x11 = qApp->nativeInterface<QNativeInterface::QX11Application>();
    xcb_connection_t* c = x11 ? x11->connection() : nullptr;
    if (!c) {
        qCWarning(lcFloating) << "no X connection; the widget stays on one workspace";
        return;
    }
    const auto id = xcb_window_t(window.winId());
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    const xcb_atom_t desktop = atom(c, "_NET_WM_DESKTOP");
    const xcb_atom_t wmState = atom(c, "_NET_WM_STATE");
    const std::uint32_t allDesktops = 0xFFFFFFFF;
    // The property covers a window not yet managed; the messages change a mapped one.
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, id, desktop, XCB_ATOM_CARDINAL, 32, 1, &allDesktops);
    xcb_client_message_event_t move{};
    move.response_type = XCB_CLIENT_MESSAGE;
    move.format = 32;
    move.window = id;
    move.type = desktop;
    move.data.data32[0] = allDesktops;
    move.data.data32[1] = 1;
    xcb_send_event(c, 0, root, XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char*>(&move));
    for (const char* state : {"_NET_WM_STATE_STICKY", "_NET_WM_STATE_ABOVE", "_NET_WM_STATE_SKIP_TASKBAR",
                              "_NET_WM_STATE_SKIP_PAGER"})
        addState(c, root, id, wmState, atom(c, state));
    xcb_flush(c);
}

} // namespace skeldrin
