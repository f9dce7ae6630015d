#!/usr/bin/env bash
# The test run's own Wine prefix.
#   wine-prefix.sh create DIR   fresh DIR/prefix, copied from DIR/template (made once)
#   wine-prefix.sh stop DIR     ends every process of DIR/prefix
set -euo pipefail
action=$1
dir=$(mkdir -p "$2" && cd "$2" && pwd)
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=

case "$action" in
create)
    if [ ! -f "$dir/template/.ready" ]; then
        rm -rf "$dir/template"
        WINEPREFIX="$dir/template" wineboot -i >/dev/null 2>&1
        # Null display driver: windows and message boxes work without an X server.
        WINEPREFIX="$dir/template" wine reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1
        WINEPREFIX="$dir/template" wineserver -w
        touch "$dir/template/.ready"
    fi
    if [ -d "$dir/prefix" ]; then
        WINEPREFIX="$dir/prefix" wineserver -k >/dev/null 2>&1 || true
        rm -rf "$dir/prefix"
    fi
    cp -a "$dir/template" "$dir/prefix"
    echo "Wine prefix ready: $dir/prefix"
    ;;
stop)
    if [ -d "$dir/prefix" ]; then
        WINEPREFIX="$dir/prefix" wineserver -k >/dev/null 2>&1 || true
        WINEPREFIX="$dir/prefix" wineserver -w >/dev/null 2>&1 || true
    fi
    ;;
*)
    echo "usage: $0 create|stop DIR" >&2
    exit 2
    ;;
esac
