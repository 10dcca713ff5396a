#!/usr/bin/env bash
# The app under Xvfb with an XEmbed tray (trayer) and a window manager, on sessions recorded through the
# real hook: screenshots of the tray icon beside the widget, the open menu and the settings window; the
# menu's Ctrl+, opens the settings and Ctrl+Q quits. Usage: tray-screenshots.sh BIN_DIR OUT_DIR
set -euo pipefail
bin=$1 out=$2
. "$(dirname "$0")/../support/x11-session.sh"
x11_session 900x520 "$out/tray-failure.png" trayer
fail_log=$tmp/app.log
# The widget and the settings window are both titled "Skeldrin".
shown() { [ "$(xdotool search --onlyvisible --name '^Skeldrin$' 2>/dev/null | wc -l)" -ge "$1" ]; }

event() { printf '%s' "$1" | TERM_PROGRAM="$2" CLAUDE_PROJECT_DIR="$3" "$bin/skeldrin-hook"; }
event '{"hook_event_name":"UserPromptSubmit","session_id":"demo-parser","cwd":"/src/parser","prompt":"Stream the input instead of reading it whole"}' iTerm.app /src/parser
event '{"hook_event_name":"PermissionRequest","session_id":"demo-docs","cwd":"/src/site","tool_name":"Bash"}' Apple_Terminal /src/site
event '{"hook_event_name":"UserPromptSubmit","session_id":"demo-release","cwd":"/src/app","prompt":"Write the release notes"}' ghostty /src/app
event '{"hook_event_name":"Stop","session_id":"demo-release","cwd":"/src/app"}' ghostty /src/app

trayer --edge top --align right --widthtype request --height 30 --tint 0x2b2b2e --transparent true --alpha 0 \
    --SetDockType true >/dev/null 2>&1 &
pids+=($!)
until_ok xdotool search --onlyvisible --class trayer || fail "trayer did not start"
"$bin/skeldrin" >"$fail_log" 2>&1 &
app=$!
pids+=($app)
until_ok shown 1 || fail "the widget did not show"
widget=$(xdotool search --onlyvisible --name '^Skeldrin$')
# The icon sits at the right end of the tray.
until_ok painted root 30x30+870+0 || fail "no icon in the tray"
sleep 0.5 # the ring is caught mid-pulse rather than at its start

import -window root "$out/tray-and-widget.png"
convert "$out/tray-and-widget.png" -crop 120x30+780+0 +repage -filter point -resize 300% "$out/tray-icon.png"

open_menu() {
    xdotool mousemove 885 15 click 3
    until_ok painted root 200x60+560+40 || fail "the tray menu did not open"
}
open_menu
import -window root png:- | convert - -crop 420x230+480+0 +repage "$out/tray-menu.png"

xdotool key ctrl+comma
until_ok shown 2 || fail "Ctrl+, in the open tray menu did not open the settings"
window=$(xdotool search --onlyvisible --name '^Skeldrin$' | grep -vx "$widget")
# A small utility window without the window manager's title bar and its minimize and maximize buttons.
xprop -id "$window" _NET_WM_WINDOW_TYPE | grep -q _NET_WM_WINDOW_TYPE_UTILITY ||
    fail "the settings window is not a utility window: $(xprop -id "$window" _NET_WM_WINDOW_TYPE)"
until_ok sh -c "xprop -id $window _NET_FRAME_EXTENTS | grep -q '= 0, 0, 0, 0'" ||
    fail "the window manager framed the settings window: $(xprop -id "$window" _NET_FRAME_EXTENTS)"
sleep 0.3
import -frame -window "$window" "$out/settings.png" 2>/dev/null || import -window "$window" "$out/settings.png"

open_menu
xdotool key ctrl+q
until_ok sh -c "! kill -0 $app" || fail "Ctrl+Q in the open tray menu did not quit"
echo "screenshots in $out"
