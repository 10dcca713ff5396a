#!/bin/bash
# The widget in a real X server with a real window manager: on every workspace, above, out of the
# taskbar, never taking focus; pointing shows the bar; a drag snaps to an edge and is saved.
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
# Waits up to ten seconds for a command to succeed (the machine may be busy).
until_ok() { for _ in $(seq 100); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done; return 1; }

export HOME=$tmp/home XDG_CONFIG_HOME=$tmp/config XDG_DATA_HOME=$tmp/data XDG_CACHE_HOME=$tmp/cache
export XDG_RUNTIME_DIR=$tmp/runtime
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
mkfifo "$tmp/display"
Xvfb -displayfd 3 -screen 0 1440x900x24 -nolisten tcp 3>"$tmp/display" 2>"$tmp/xvfb.log" &
pids+=($!)
read -r -t 10 number <"$tmp/display" || fail "Xvfb did not start"
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

state=$(xprop -id "$widget" _NET_WM_STATE _NET_WM_DESKTOP)
echo "$state"
# openbox shows "every workspace" through the desktop number rather than the sticky state.
for s in _NET_WM_STATE_ABOVE _NET_WM_STATE_SKIP_TASKBAR _NET_WM_STATE_SKIP_PAGER; do
    grep -q "$s" <<<"$state" || fail "widget lacks $s"
done
grep -q "_NET_WM_DESKTOP(CARDINAL) = 4294967295" <<<"$state" || fail "widget is not on all workspaces"
[ "$(xdotool getwindowfocus)" = "$term" ] || fail "the widget took the focus from the terminal"
import -window root "$shots/widget.png"

eval "$(xdotool getwindowgeometry --shell "$widget")"
# Point at the first row: 10 outer + 8 inner padding, then into the row.
xdotool mousemove $((X + 60)) $((Y + 36))
sleep 0.3
xdotool mousemove $((X + 62)) $((Y + 38))
until_ok xdotool search --onlyvisible --name '^Skeldrin details$' || fail "pointing at a row did not show the bar"
sleep 0.5
import -window root "$shots/widget-bar.png"
[ "$(xdotool getwindowfocus)" = "$term" ] || fail "the bar took the focus from the terminal"

# Drag to 30 points from the left edge: it snaps to the edge and is saved with the "min" anchor.
xdotool mousemove $((X + 150)) $((Y + 30)) mousedown 1
for x in 1200 900 600 300 $((30 + 150)); do xdotool mousemove "$x" $((Y + 30)); sleep 0.05; done
xdotool mouseup 1
until_ok grep -q 'widget.placement=.*\\"x\\":\\"min\\"' "$tmp/settings.ini" ||
    fail "the drag was not saved: $(cat "$tmp/settings.ini")"
snapped() { eval "$(xdotool getwindowgeometry --shell "$widget")"; [ "$X" -le 20 ]; }
until_ok snapped || fail "the widget did not snap to the left edge"
xdotool mousemove 700 450
sleep 0.6
import -window root "$shots/widget-left.png"
echo "PASS"
