# For real-window tests: x11_session WIDTHxHEIGHT FAILURE_PNG [TOOL...] makes a temporary home in $tmp, starts
# Xvfb on a display it picks and openbox, and kills $pids on exit; a missing tool skips the test.

# Waits up to a minute for a command to succeed (the machine may be busy; it returns as soon as it does).
until_ok() { for _ in $(seq 600); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done; return 1; }
fail() {
    echo "FAIL: $*"
    import -window root "$failure_png" 2>/dev/null || true
    if [ -n "${fail_log:-}" ]; then cat "$fail_log" 2>/dev/null || true; fi
    exit 1
}
# A window whose content is painted, not one flat colour; with a geometry, only that part of it.
# An empty id would make import wait for a click.
painted() {
    [ -n "$1" ] && import -window "$1" png:- | convert - ${2:+-crop "$2" +repage} -format '%[fx:standard_deviation > 0.01]' info: |
        grep -qx 1
}

x11_session() {
    local size=$1 tool number
    failure_png=$2
    shift 2
    for tool in Xvfb openbox xdotool xprop import convert "$@"; do
        command -v "$tool" >/dev/null || { echo "SKIP: $tool is not installed (scripts/install-deps --test)"; exit 0; }
    done
    tmp=$(mktemp -d)
    pids=()
    trap 'for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; rm -rf "$tmp"' EXIT
    export HOME=$tmp/home XDG_CONFIG_HOME=$tmp/config XDG_DATA_HOME=$tmp/data XDG_CACHE_HOME=$tmp/cache
    export XDG_RUNTIME_DIR=$tmp/runtime SKELDRIN_UPDATE_URL=
    # A bus address that leads nowhere: with none at all, the app would autolaunch a bus that outlives the test.
    export DBUS_SESSION_BUS_ADDRESS=unix:path=$tmp/no-bus
    unset QT_QPA_PLATFORM WAYLAND_DISPLAY
    mkdir -p "$HOME" "$(dirname "$failure_png")" && mkdir -m 700 "$XDG_RUNTIME_DIR"
    mkfifo "$tmp/display"
    Xvfb -displayfd 3 -screen 0 "${size}x24" -nolisten tcp 3>"$tmp/display" 2>"$tmp/xvfb.log" &
    pids+=($!)
    read -r -t 20 number <"$tmp/display" || fail "Xvfb did not start"
    export DISPLAY=:$number
    openbox >"$tmp/openbox.log" 2>&1 &
    pids+=($!)
    until_ok sh -c 'xprop -root _NET_SUPPORTING_WM_CHECK | grep -q "window id"' || fail "openbox did not start"
}
