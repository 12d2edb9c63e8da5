#!/usr/bin/env bash
# Configures and builds into build/ (binaries in build/bin/). Without
# arguments it builds everything, the benchmarks included; arguments name the
# targets to build instead (scripts/test.sh builds `all`, which leaves the
# benchmarks out).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${WD64_BUILD_DIR:-$root/build}
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(all benchmarks)
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"
