#pragma once
// Makes an already shown top-level window float: on every workspace or space, above other windows,
// without a taskbar or pager entry, never activating. Does nothing where the platform offers no such
// control (Wayland, offscreen).
class QWidget;

namespace skeldrin {

void makeFloating(QWidget& window);

} // namespace skeldrin
