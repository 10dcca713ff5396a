#include "Skeldrin/platform/linux/X11Windows.h"

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

namespace skeldrin::x11 {
namespace {

template <typename Reply> using ReplyPtr = std::unique_ptr<Reply, decltype(&std::free)>;
template <typename Reply> ReplyPtr<Reply> owned(Reply* reply)
{
    return ReplyPtr<Reply>(reply, &std::free);
}

constexpr std::uint32_t iconicState = 3; // WM_STATE's IconicState
constexpr std::uint32_t sourcePager =
    2; // a request on the user's behalf, which focus stealing prevention honours

class Display {
  public:
    Display()
        : connection_(xcb_connect(nullptr, &screenNumber_))
    {
        if (xcb_connection_has_error(connection_)) {
            xcb_disconnect(connection_);
            connection_ = nullptr;
            return;
        }
        xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection_));
        for (int i = 0; i < screenNumber_ && screens.rem; ++i)
            xcb_screen_next(&screens);
        root_ = screens.data->root;
    }
    ~Display()
    {
        if (connection_) xcb_disconnect(connection_);
    }
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    bool ok() const { return connection_ != nullptr; }
    xcb_connection_t* connection() const { return connection_; }
    xcb_window_t root() const { return root_; }

    xcb_atom_t atom(const char* name) const
    {
        auto reply = owned(xcb_intern_atom_reply(
            connection_, xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(std::strlen(name)), name),
            nullptr));
        return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    }

    // The 32-bit values of a property; empty when it is not set.
    std::vector<std::uint32_t> cardinals(xcb_window_t window, xcb_atom_t property) const
    {
        auto reply = owned(xcb_get_property_reply(
            connection_,
            xcb_get_property(connection_, 0, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, 4096), nullptr));
        if (!reply || reply->format != 32) return {};
        const auto* values = static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()));
        return {values, values + xcb_get_property_value_length(reply.get()) / 4};
    }

  private:
    int screenNumber_ = 0;
    xcb_connection_t* connection_;
    xcb_window_t root_ = XCB_WINDOW_NONE;
};

[[noreturn]] void noDisplay()
{
    throw std::runtime_error(
        "There is no X11 display to bring the window forward on. On Wayland, windows can only be "
        "raised by the terminal itself (tmux, kitty, WezTerm and Konsole still work).");
}

} // namespace

bool available()
{
    return Display().ok();
}

void activate(std::uint32_t window)
{
    const Display display;
    if (!display.ok()) noDisplay();
    xcb_connection_t* c = display.connection();
    const xcb_atom_t wmState = display.atom("WM_STATE");

    // WINDOWID often names a widget inside the terminal; the window manager knows its top-level client.
    xcb_window_t client = window;
    for (xcb_window_t current = window; current != XCB_WINDOW_NONE && current != display.root();) {
        auto tree = owned(xcb_query_tree_reply(c, xcb_query_tree(c, current), nullptr));
        if (!tree) {
            if (current == window)
                throw std::runtime_error("The terminal window of this session is gone (window " +
                                         std::to_string(window) + ").");
            break;
        }
        if (!display.cardinals(current, wmState).empty()) {
            client = current;
            break;
        }
        current = tree->parent;
    }

    const std::vector<std::uint32_t> state = display.cardinals(client, wmState);
    if (!state.empty() && state.front() == iconicState) xcb_map_window(c, client);

    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = client;
    event.type = display.atom("_NET_ACTIVE_WINDOW");
    event.data.data32[0] = sourcePager;
    event.data.data32[1] = XCB_CURRENT_TIME;
    xcb_send_event(c, 0, display.root(),
                   XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char*>(&event));
    // A round trip, so the requests have reached the server before the connection closes.
    free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
}

std::optional<std::uint32_t> windowOfProcesses(const std::vector<std::int32_t>& pids)
{
    const Display display;
    if (!display.ok()) noDisplay();
    const xcb_atom_t pidAtom = display.atom("_NET_WM_PID");
    const std::vector<std::uint32_t> clients =
        display.cardinals(display.root(), display.atom("_NET_CLIENT_LIST"));
    std::optional<std::uint32_t> best;
    std::size_t bestRank = pids.size();
    for (const std::uint32_t window : clients) {
        const std::vector<std::uint32_t> owner = display.cardinals(window, pidAtom);
        if (owner.empty()) continue;
        for (std::size_t rank = 0; rank < bestRank; ++rank) {
            if (static_cast<std::uint32_t>(pids[rank]) == owner.front()) {
                best = window;
                bestRank = rank;
                break;
            }
        }
    }
    return best;
}

} // namespace skeldrin::x11
