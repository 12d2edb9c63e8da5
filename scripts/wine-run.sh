#!/usr/bin/env bash
# Runs a Windows program under Wine in the given prefix, creating the prefix
# once (first start takes ~15 s). Usage: wine-run.sh PREFIX PROGRAM [ARGS...]
set -euo pipefail
prefix=$(realpath -m "$1"); shift
export WINEPREFIX=$prefix
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}
wine=${WINE:-/usr/lib/wine/wine64}
# Debian's Wine has no preloader, so nothing keeps the kernel's randomly
# placed heap (anywhere in the 1 GB above the loader) out of the range Wine
# must map at 0x7ffe0000: about one start in a thousand then exits 1 before
# the program runs, silently under WINEDEBUG=-all ("failed to map the shared
# user data: c0000018"). Without randomization the heap starts right after
# the loader, far below that range; children and the server inherit it.
fixed=()
if setarch "$(uname -m)" -R true 2>/dev/null; then fixed=(setarch "$(uname -m)" -R); fi
if [ ! -f "$prefix/.wd64-ready" ]; then
  mkdir -p "$prefix"
  (
    flock 9
    if [ ! -f "$prefix/.wd64-ready" ]; then
      "${fixed[@]}" "$wine" wineboot --init >/dev/null 2>&1 || true
      /usr/lib/wine/wineserver -w 2>/dev/null || true
      touch "$prefix/.wd64-ready"
    fi
  ) 9>"$prefix.lock"
fi
exec "${fixed[@]}" "$wine" "$@"
