#!/usr/bin/env bash
# Fetches the third-party sources the build compiles into .deps/ (git-ignored):
# Debian's maintained minizip source package, security fixes included. The
# machine's own apt configuration is left alone: a private sources list adds
# deb-src for the configured mirror and private lists hold its indexes.
# Idempotent: returns at once when the sources are already unpacked. Run as
# root on Debian bookworm (apt-get source needs dpkg-source from dpkg-dev).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
deps="$root/.deps"
target="$deps/minizip"
stamp="$target/.wd64-fetched"

if [ -f "$stamp" ] && [ -f "$target/zip.c" ] && [ -f "$target/ioapi.c" ]; then
  exit 0
fi

apt_state="$deps/apt"
sources="$apt_state/sources.list"
lists="$apt_state/lists"
download="$deps/download"
mkdir -p "$lists/partial" "$download"

# deb822 form when the machine has it, one-line form otherwise.
if [ -f /etc/apt/sources.list.d/debian.sources ]; then
  sources="$apt_state/debian.sources"
  sed -E 's/^Types:.*/Types: deb deb-src/' /etc/apt/sources.list.d/debian.sources >"$sources"
elif [ -f /etc/apt/sources.list ]; then
  grep -E '^[[:space:]]*deb[[:space:]]' /etc/apt/sources.list >"$sources.tmp" || true
  { cat "$sources.tmp"; sed -E 's/^([[:space:]]*)deb([[:space:]])/\1deb-src\2/' "$sources.tmp"; } >"$sources"
  rm -f "$sources.tmp"
else
  echo "fetch-deps: no Debian sources list found" >&2
  exit 1
fi

# apt picks the parser by the file's extension, so a deb822 copy keeps ".sources".
# The download lands in the tree, which apt's unprivileged _apt user may not
# reach, so it runs as the calling root user.
apt_opts=(-o "APT::Sandbox::User=root" -o "Dir::Etc::sourcelist=$sources" -o "Dir::Etc::sourceparts=-" -o "Dir::State::Lists=$lists")

echo "fetch-deps: fetching the minizip source package"
apt-get "${apt_opts[@]}" update -qq
(cd "$download" && apt-get "${apt_opts[@]}" source --download-only -qq minizip)

dsc=$(ls -1 "$download"/minizip_*.dsc | sort -V | tail -n 1)
rm -rf "$target.tmp"
dpkg-source -x "$dsc" "$target.tmp" >/dev/null

# The Debian package keeps the zip writer in the top folder of its tree.
src=$(dirname "$(find "$target.tmp" -name zip.c -path '*minizip*' | head -n 1)")
if [ -z "$src" ] || [ ! -f "$src/ioapi.c" ]; then
  echo "fetch-deps: zip.c/ioapi.c not found in $dsc" >&2
  exit 1
fi
rm -rf "$target"
mkdir -p "$target"
cp -a "$src"/. "$target"/
basename "$dsc" >"$stamp"
rm -rf "$target.tmp"
echo "fetch-deps: minizip sources in $target"
