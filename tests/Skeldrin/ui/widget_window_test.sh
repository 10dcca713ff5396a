#!/bin/bash
# The widget in a real X server with a real window manager: on every workspace, above, out of the
# taskbar, never taking focus; pointing shows the bar; a drag snaps to an edge and is saved; the bar's
# green light compacts it. Every step waits on what it checks, never on a fixed time.
# Usage: widget_window_test.sh <widget_harness> <skeldrin-hook> <screenshot folder>
set -u
harness=$1 hook=$2 shots=$3
for tool in Xvfb openbox xterm xdotool xprop import; do
    command -v "$tool" >/dev/null || { echo "SKIP: $tool is not installed (scripts/install-deps --test)"; exit 0; }
done
mkdir -p "$shots"
tmp=$(mktemp -d)
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done; wait 2>/dev/null; rm -rf "$tmp"; }
trap cleanup EXIT
fail() { echo "FAIL: $*"; import -display "$DISPLAY" -window root "$shots/failure.png" 2>/dev/null; exit 1; }
# Waits up to twenty seconds for a command to succeed (the machine may be busy).
until_ok() { for _ in $(seq 200); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done; return 1; }
# A window whose content is painted (not one flat colour).
painted() { [ "$(import -window "$1" png:- | convert - -format '%[fx:standard_deviation > 0.02]' info:)" = 1 ]; }
bar_shown() { xdotool search --onlyvisible --name '^Skeldrin details$'; }
# Points at the first row (10 outer + 8 inner padding, then into the row), moving within it so the widget
# sees motion, until the bar shows.
point_at_row() {
    eval "$(xdotool getwindowgeometry --shell "$widget")"
    xdotool mousemove --sync $((X + 60)) $((Y + 36)) mousemove --sync $((X + 62)) $((Y + 38))
    bar_shown
}

export HOME=$tmp/home XDG_CONFIG_HOME=$tmp/config XDG_DATA_HOME=$tmp/data XDG_CACHE_HOME=$tmp/cache
export XDG_RUNTIME_DIR=$tmp/runtime
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
mkfifo "$tmp/display"
Xvfb -displayfd 3 -screen 0 1440x900x24 -nolisten tcp 3>"$tmp/display" 2>"$tmp/xvfb.log" &
pids+=($!)
read -r -t 20 number <"$tmp/display" || fail "Xvfb did not start"
export DISPLAY=:$number
openbox >"$tmp/openbox.log" 2>&1 &
pids+=($!)
until_ok xprop -root _NET_SUPPORTING_WM_CHECK || fail "openbox did not start"
until_ok sh -c 'xprop -root _NET_SUPPORTING_WM_CHECK | grep -q "window id"' || fail "openbox is not managing"

xterm -title focus-keeper &
pids+=($!)
until_ok xdotool search --name '^focus-keeper$' || fail "xterm did not map"
term=$(xdotool search --name '^focus-keeper$' | head -1)
xdotool windowactivate --sync "$term"

QT_QPA_PLATFORM=xcb "$harness" "$hook" "$tmp/settings.ini" >"$tmp/harness.log" 2>&1 &
pids+=($!)
until_ok xdotool search --onlyvisible --name '^Skeldrin$' || fail "the widget did not show: $(cat "$tmp/harness.log")"
widget=$(xdotool search --onlyvisible --name '^Skeldrin$' | head -1)
floating() {
    xprop -id "$widget" _NET_WM_STATE | grep -q _NET_WM_STATE_SKIP_PAGER &&
        xprop -id "$widget" _NET_WM_DESKTOP | grep -q 4294967295
}
until_ok floating
until_ok painted "$widget" || fail "the widget was not painted"

state=$(xprop -id "$widget" _NET_WM_STATE _NET_WM_DESKTOP)
echo "$state"
# openbox shows "every workspace" through the desktop number rather than the sticky state.
for s in _NET_WM_STATE_ABOVE _NET_WM_STATE_SKIP_TASKBAR _NET_WM_STATE_SKIP_PAGER; do
    grep -q "$s" <<<"$state" || fail "widget lacks $s"
done
grep -q "_NET_WM_DESKTOP(CARDINAL) = 4294967295" <<<"$state" || fail "widget is not on all workspaces"
[ "$(xdotool getwindowfocus)" = "$term" ] || fail "the widget took the focus from the terminal"
import -window root "$shots/widget.png"

until_ok point_at_row || fail "pointing at a row did not show the bar"
bar=$(bar_shown | head -1)
until_ok painted "$bar" || fail "the bar was not painted"
import -window root "$shots/widget-bar.png"
[ "$(xdotool getwindowfocus)" = "$term" ] || fail "the bar took the focus from the terminal"

# Drag to 30 points from the left edge: it snaps to the edge and is saved with the "min" anchor.
eval "$(xdotool getwindowgeometry --shell "$widget")"
xdotool mousemove --sync $((X + 150)) $((Y + 30)) mousedown 1
for x in 1200 900 600 300 $((30 + 150)); do xdotool mousemove --sync "$x" $((Y + 30)); done
xdotool mouseup 1
until_ok grep -q 'widget.placement=.*\\"x\\":\\"min\\"' "$tmp/settings.ini" ||
    fail "the drag was not saved: $(cat "$tmp/settings.ini")"
snapped() { eval "$(xdotool getwindowgeometry --shell "$widget")"; [ "$X" -le 20 ]; }
until_ok snapped || fail "the widget did not snap to the left edge"
xdotool mousemove --sync 700 450
until_ok sh -c '! xdotool search --onlyvisible --name "^Skeldrin details$"' || fail "the bar stayed after the pointer left"
import -window root "$shots/widget-left.png"

# The bar's green light (after the 11-point lead, the 12-point red light and 8 of spacing) compacts the
# widget; it keeps its left edge and the bar stays while the pointer is on it.
until_ok point_at_row || fail "pointing at a row did not show the bar again"
bar=$(bar_shown | head -1)
eval "$(xdotool getwindowgeometry --shell "$bar")"
xdotool mousemove --sync $((X + 37)) $((Y + 17)) click 1
until_ok grep -q 'widget.compact=true' "$tmp/settings.ini" || fail "the green light did not compact the widget"
compacted() {
    eval "$(xdotool getwindowgeometry --shell "$widget")"
    [ "$WIDTH" -eq $((260 + 2 * 4 + 2 * 4)) ] && [ "$X" -le 20 ]
}
until_ok compacted || fail "the widget did not shrink in place: $(xdotool getwindowgeometry "$widget")"
until_ok painted "$widget"
bar_shown >/dev/null || fail "the bar closed under the pointer"
import -window root "$shots/widget-compact.png"
echo "PASS"
