#!/usr/bin/env bash
# Runs a Windows program under Wine in the given prefix, creating the prefix
# once (first start takes ~15 s). Usage: wine-run.sh PREFIX PROGRAM [ARGS...]
set -euo pipefail
prefix=$(realpath -m "$1"); shift
export WINEPREFIX=$prefix
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}
wine=${WINE:-/usr/lib/wine/wine64}
if [ ! -f "$prefix/.wd64-ready" ]; then
  mkdir -p "$prefix"
  (
    flock 9
    if [ ! -f "$prefix/.wd64-ready" ]; then
      "$wine" wineboot --init >/dev/null 2>&1 || true
      /usr/lib/wine/wineserver -w 2>/dev/null || true
      touch "$prefix/.wd64-ready"
    fi
  ) 9>"$prefix.lock"
fi
exec "$wine" "$@"
