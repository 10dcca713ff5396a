#!/bin/bash
# The app under Xvfb, openbox and an XEmbed tray (trayer), on sessions recorded by the real hook: the widget
# floats without taking the focus, shows its bar, snaps when dragged and compacts; the tray menu's keys open
# the settings and quit. Screenshots of each step. Usage: app-window-test.sh BIN_DIR SCREENSHOT_DIR
set -u
bin=$1 shots=$2
. "$(dirname "$0")/../support/x11-session.sh"
x11_session 1440x900 "$shots/failure.png" xterm trayer
fail_log=$tmp/app.log
settings=$XDG_CONFIG_HOME/Skeldrin/Skeldrin.conf
# The widget and the settings window are both titled "Skeldrin".
shown() { [ "$(xdotool search --onlyvisible --name '^Skeldrin$' 2>/dev/null | wc -l)" -ge "$1" ]; }
bar_shown() { xdotool search --onlyvisible --name '^Skeldrin details$'; }
geometry() { eval "$(xdotool getwindowgeometry --shell "$1")"; }
# Points at the first row (10 outer + 8 inner padding, then into the row), moving within it so the widget
# sees motion, until the bar shows.
point_at_row() {
    geometry "$widget"
    xdotool mousemove --sync $((X + 60)) $((Y + 36)) mousemove --sync $((X + 62)) $((Y + 38))
    bar_shown
}
keeps_focus() { [ "$(xdotool getwindowfocus)" = "$term" ] || fail "$1 took the focus from the terminal"; }
# One running session with a prompt, one waiting for an approval, one done.
event() { printf '{"hook_event_name":"%s","session_id":"%s","cwd":"/work/%s"%s}' "$1" "$2" "$2" "${3:-}" | "$bin/skeldrin-hook"; }
event UserPromptSubmit render-fix ',"prompt":"Fix the flaky render test in the widget"'
event PermissionRequest api-docs ',"tool_name":"Bash"'
event UserPromptSubmit release-notes ',"prompt":"Draft the release notes"'
event Stop release-notes

xterm -title focus-keeper &
pids+=($!)
until_ok xdotool search --name '^focus-keeper$' || fail "xterm did not map"
term=$(xdotool search --name '^focus-keeper$' | head -1)
xdotool windowactivate --sync "$term"
trayer --edge top --align right --widthtype request --height 30 --tint 0x2b2b2e --transparent true --alpha 0 \
    --SetDockType true >/dev/null 2>&1 &
pids+=($!)
until_ok xdotool search --onlyvisible --class trayer || fail "trayer did not start"

"$bin/skeldrin" >"$fail_log" 2>&1 &
app=$!
pids+=($app)
until_ok shown 1 || fail "the widget did not show"
widget=$(xdotool search --onlyvisible --name '^Skeldrin$' | head -1)
# openbox shows "every workspace" through the desktop number rather than the sticky state.
floating() {
    state=$(xprop -id "$widget" _NET_WM_STATE _NET_WM_DESKTOP)
    for s in _ABOVE _SKIP_TASKBAR _SKIP_PAGER "(CARDINAL) = 4294967295"; do grep -qF "$s" <<<"$state" || return 1; done
}
until_ok floating || fail "the widget is not above, out of the taskbar and on all workspaces: $state"
until_ok painted "$widget" || fail "the widget was not painted"
# The icon sits at the right end of the tray.
until_ok painted root 30x30+1410+0 || fail "no icon in the tray"
keeps_focus "the widget"
import -window root "$shots/tray-and-widget.png"

until_ok point_at_row || fail "pointing at a row did not show the bar"
bar=$(bar_shown | head -1)
until_ok painted "$bar" || fail "the bar was not painted"
import -window root "$shots/widget-bar.png"
keeps_focus "the bar"

# Drag to 30 points from the left edge: it snaps to the edge and is saved with the "min" anchor.
geometry "$widget"
xdotool mousemove --sync $((X + 150)) $((Y + 30)) mousedown 1
for x in 1200 900 600 300 $((30 + 150)); do xdotool mousemove --sync "$x" $((Y + 30)); done
xdotool mouseup 1
until_ok grep -q 'widget.placement=.*\\"x\\":\\"min\\"' "$settings" || fail "the drag was not saved: $(cat "$settings")"
snapped() { geometry "$widget"; [ "$X" -le 20 ]; }
until_ok snapped || fail "the widget did not snap to the left edge"
xdotool mousemove --sync 700 450
until_ok sh -c '! xdotool search --onlyvisible --name "^Skeldrin details$"' || fail "the bar stayed after the pointer left"

# The bar's green light (after the 11-point lead, the 12-point red light and 8 of spacing) compacts the
# widget; it keeps its left edge and the bar stays while the pointer is on it.
until_ok point_at_row || fail "pointing at a row did not show the bar again"
geometry "$(bar_shown | head -1)"
xdotool mousemove --sync $((X + 37)) $((Y + 17)) click 1
until_ok grep -q 'widget.compact=true' "$settings" || fail "the green light did not compact the widget"
compacted() { geometry "$widget"; [ "$WIDTH" -eq $((260 + 2 * 4 + 2 * 4)) ] && [ "$X" -le 20 ]; }
until_ok compacted || fail "the widget did not shrink in place: $(xdotool getwindowgeometry "$widget")"
until_ok painted "$widget"
bar_shown >/dev/null || fail "the bar closed under the pointer"
import -window root "$shots/widget-compact.png"

open_menu() {
    xdotool mousemove 1425 15 click 3
    until_ok painted root 200x60+1100+40 || fail "the tray menu did not open"
}
open_menu
import -window root png:- | convert - -crop 420x230+1020+0 +repage "$shots/tray-menu.png"
xdotool key ctrl+comma
until_ok shown 2 || fail "Ctrl+, in the open tray menu did not open the settings"
window=$(xdotool search --onlyvisible --name '^Skeldrin$' | grep -vx "$widget")
# A small utility window without the window manager's title bar and its minimize and maximize buttons.
xprop -id "$window" _NET_WM_WINDOW_TYPE | grep -q _NET_WM_WINDOW_TYPE_UTILITY ||
    fail "the settings window is not a utility window: $(xprop -id "$window" _NET_WM_WINDOW_TYPE)"
until_ok sh -c "xprop -id $window _NET_FRAME_EXTENTS | grep -q '= 0, 0, 0, 0'" ||
    fail "the window manager framed the settings window: $(xprop -id "$window" _NET_FRAME_EXTENTS)"
until_ok painted "$window" || fail "the settings window was not painted"
import -window "$window" "$shots/settings.png"

open_menu
xdotool key ctrl+q
until_ok sh -c "! kill -0 $app" || fail "Ctrl+Q in the open tray menu did not quit"
echo "PASS"
