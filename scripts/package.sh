#!/usr/bin/env bash
# Builds the release package: dist/WatchDog64-<version>/, its zip and
# dist/WatchDog64-<version>.msi.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
build=${WD64_BUILD_DIR:-$root/build}
# The product version is the one CMake builds into every binary.
version=$(sed -nE 's/^project\(WatchDog64 VERSION ([0-9.]+).*/\1/p' "$root/CMakeLists.txt")
name=WatchDog64-$version
out=$root/dist/$name
rm -rf "$out" "$root/dist/$name.zip" "$root/dist/$name.msi"
mkdir -p "$out"
for file in WatchDog64.dll DataLayer.dll CoreErrorMessages.dll CoreEventMessages.dll wd64host.exe; do
  cp "$build/bin/$file" "$out/"
done
cp "$root/config/watchdog64.sample.jsonc" "$out/"
sed 's/$/\r/' "$root/scripts/package/INSTALL.txt" > "$out/INSTALL.txt"
# Debian's python carries what the notices script needs on any machine.
/usr/bin/python3 "$root/scripts/package/notices.py" "$root/.deps/minizip" "$out/THIRD-PARTY-NOTICES.txt"
(cd "$root/dist" && /usr/bin/python3 -m zipfile -c "$name.zip" "$name")
"$root/scripts/package/build-msi.sh" "$out" "$version" "$root/dist/$name.msi"
echo "package: $root/dist/$name.zip"
echo "package: $root/dist/$name.msi"
