#!/usr/bin/env bash
# Builds the release package: dist/WatchDog64-<version>/ and its zip.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
build=${WD64_BUILD_DIR:-$root/build}
version=7.0.127.0
name=WatchDog64-$version
out=$root/dist/$name
rm -rf "$out" "$root/dist/$name.zip"
mkdir -p "$out"
for file in WatchDog64.dll DataLayer.dll CoreErrorMessages.dll CoreEventMessages.dll wd64host.exe; do
  cp "$build/bin/$file" "$out/"
done
cp "$root/config/watchdog64.sample.jsonc" "$out/"
sed 's/$/\r/' "$root/scripts/package/INSTALL.txt" > "$out/INSTALL.txt"
(cd "$root/dist" && python3 -m zipfile -c "$name.zip" "$name")
echo "package: $root/dist/$name.zip"
