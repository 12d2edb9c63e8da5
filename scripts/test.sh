#!/usr/bin/env bash
# Sets up, builds and runs the whole test suite under Wine. The benchmarks
# are left out of this build (scripts/build.sh builds them). Two tests run at
# a time: the MSI test in its own prefix beside the rest, which take turns in
# the build's prefix (see tests/CMakeLists.txt).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" all
build=${WD64_BUILD_DIR:-$root/build}
ctest --test-dir "$build" --output-on-failure -j2
