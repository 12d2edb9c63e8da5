#!/usr/bin/env bash
# Configures and builds everything into build/ (binaries in build/bin/).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${WD64_BUILD_DIR:-$root/build}
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$(nproc)"
