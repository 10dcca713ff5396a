#pragma once
#include <cstdint>
#include <optional>
#include <vector>

// Raising windows on X11 through the window manager, with no GUI platform needed.
namespace skeldrin::x11 {

// Whether an X11 display can be reached ($DISPLAY).
bool available();

// Un-minimizes the top-level window that contains window and asks the window manager to make it
// the active one. Throws std::runtime_error with a text for the user.
void activate(std::uint32_t window);

// The managed window whose _NET_WM_PID is the first of pids (nearest first) to own one.
std::optional<std::uint32_t> windowOfProcesses(const std::vector<std::int32_t>& pids);

} // namespace skeldrin::x11
