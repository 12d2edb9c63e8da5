#!/usr/bin/env bash
# Sets up, builds and runs the whole test suite under Wine.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
build=${WD64_BUILD_DIR:-$root/build}
ctest --test-dir "$build" --output-on-failure
