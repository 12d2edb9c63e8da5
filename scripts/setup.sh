#!/usr/bin/env bash
# Installs what a Debian bookworm machine lacks for building and testing
# WatchDog64; does nothing when everything is there. Run as root.
set -euo pipefail

packages=(
  cmake make
  g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
  libz-mingw-w64-dev
  wine64
  googletest
  nlohmann-json3-dev libcli11-dev
  wixl msitools
  python3 python3-prometheus-client unzip
  dpkg-dev
  cppcheck
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# Third-party sources the build compiles (never committed).
here=$(cd "$(dirname "$0")" && pwd)
if [ -x "$here/fetch-deps.sh" ]; then
  "$here/fetch-deps.sh"
fi
