#!/usr/bin/env bash
# Runs the app under Xvfb with an XEmbed tray (trayer) and a window manager, on sessions recorded through
# the real hook, and saves screenshots of the tray icon with its badge, the open menu and the settings
# window. Usage: tray-screenshots.sh BIN_DIR OUT_DIR
set -euo pipefail
bin=$1 out=$2
for tool in Xvfb openbox trayer xdotool import convert; do
    command -v "$tool" >/dev/null || { echo "SKIP: $tool is missing (scripts/install-deps --test)"; exit 0; }
done
mkdir -p "$out"
home=$(mktemp -d)
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; rm -rf "$home"; }
trap cleanup EXIT
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" XDG_RUNTIME_DIR="$home/run"
mkdir -m 700 "$XDG_RUNTIME_DIR"
unset QT_QPA_PLATFORM WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS
export SKELDRIN_UPDATE_URL=  # no update check

event() { printf '%s' "$1" | TERM_PROGRAM="$2" CLAUDE_PROJECT_DIR="$3" "$bin/skeldrin-hook"; }
event '{"hook_event_name":"UserPromptSubmit","session_id":"demo-parser","cwd":"/src/parser","prompt":"Stream the input instead of reading it whole"}' iTerm.app /src/parser
event '{"hook_event_name":"UserPromptSubmit","session_id":"demo-docs","cwd":"/src/site","prompt":"Fix the broken links in the docs"}' Apple_Terminal /src/site
event '{"hook_event_name":"PermissionRequest","session_id":"demo-docs","cwd":"/src/site","tool_name":"Bash"}' Apple_Terminal /src/site
event '{"hook_event_name":"UserPromptSubmit","session_id":"demo-release","cwd":"/src/app","prompt":"Write the release notes"}' ghostty /src/app
event '{"hook_event_name":"Stop","session_id":"demo-release","cwd":"/src/app"}' ghostty /src/app

exec {fd}<> <(:)
Xvfb -displayfd "$fd" -screen 0 900x520x24 -nolisten tcp >/dev/null 2>&1 &
pids+=($!)
read -r -t 20 -u "$fd" display
export DISPLAY=":$display"
openbox >/dev/null 2>&1 &
pids+=($!)
trayer --edge top --align right --widthtype request --height 30 --tint 0x2b2b2e --transparent true --alpha 0 \
    --SetDockType true >/dev/null 2>&1 &
pids+=($!)
sleep 1
"$bin/skeldrin" >"$home/app.log" 2>&1 &
pids+=($!)
sleep 2

import -window root "$home/root.png"
convert "$home/root.png" -crop 120x30+780+0 +repage -filter point -resize 300% "$out/tray-icon.png"

xdotool mousemove 885 15 click 3
sleep 1
import -window root "$home/menu.png"
convert "$home/menu.png" -crop 420x230+480+0 +repage "$out/tray-menu.png"

# Up from nothing chosen lands on "Quit Skeldrin", once more on "Settings…".
xdotool key Up Up Return
sleep 1
window=$(xdotool search --name '^Skeldrin$' | tail -1)
import -frame -window "$window" "$out/settings.png" 2>/dev/null || import -window "$window" "$out/settings.png"
echo "screenshots in $out"
