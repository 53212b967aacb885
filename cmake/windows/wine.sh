#!/usr/bin/env bash
# Runs a Windows program under Wine: wine.sh PROGRAM [ARGUMENT...]. Without arguments it only makes the prefix, once.
#
# The prefix, with its registry, is this project's own (WINEPREFIX; below build/ unless it is set). Nothing of the
# desktop is used.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
export WINEPREFIX=${WINEPREFIX:-$root/build/wine}
export WINEARCH=win64 WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
unset DISPLAY WAYLAND_DISPLAY
if [ ! -e "$WINEPREFIX/.ready" ]; then
    mkdir -p "$WINEPREFIX"
    exec 9>"$WINEPREFIX/.lock"
    flock 9 # programs that start at the same time wait for the one that makes it
    if [ ! -e "$WINEPREFIX/.ready" ]; then
        # Without a display there are no windows, and a program cannot be asked to end, unless Wine is told to do without.
        if ! { wine wineboot -i &&
            wine reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f && wineserver -w; } >"$WINEPREFIX/.log" 2>&1 9>&-; then
            tail -n 20 "$WINEPREFIX/.log" >&2
            echo "wine.sh: the prefix $WINEPREFIX cannot be made" >&2
            exit 1
        fi
        touch "$WINEPREFIX/.ready"
    fi
    exec 9>&-
fi
[ $# -eq 0 ] || exec wine "$@"
