#!/usr/bin/env bash
# Sets up, builds and runs the demonstration host under Wine.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
build=${WD64_BUILD_DIR:-$root/build}
exec "$root/scripts/wine-run.sh" "$build/wineprefix" "$build/bin/wd64host.exe" "${@:-demo}"
