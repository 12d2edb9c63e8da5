#!/usr/bin/env bash
# Builds the MSI package from a staged package folder.
# Usage: build-msi.sh STAGE_DIR VERSION OUTPUT.msi
# STAGE_DIR holds what the zip ships (binaries, message DLLs, sample
# configuration, INSTALL.txt, THIRD-PARTY-NOTICES.txt); the default service
# configuration comes from this folder.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
stage=$(realpath "$1")
version=$2
output=$(realpath -m "$3")
if ! [[ $version =~ ^[0-9]+\.[0-9]+\.[0-9]+\.[0-9]+$ ]]; then
  echo "build-msi: version must be a.b.c.d, not '$version'" >&2
  exit 2
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$stage"/* "$work/"
cp "$here/watchdog64.default.jsonc" "$work/"
# wixl looks source files up from the current folder.
(cd "$work" && wixl -a x64 -D Version="$version" -o "$work/package.msi" "$here/WatchDog64.wxs") 2> "$work/wixl.log" ||
  { cat "$work/wixl.log" >&2; exit 1; }

# What wixl cannot express is set in the tables afterwards:
queries=(
  # Property-setting actions run at once (wixl marks them deferred) and where
  # they belong: the remembered values right after AppSearch, before the
  # defaults; the default configuration path once directories are resolved.
  "UPDATE CustomAction SET Type = 51"
  "UPDATE InstallExecuteSequence SET Sequence = 51 WHERE Action = 'RecallInstallDir'"
  "UPDATE InstallExecuteSequence SET Sequence = 52 WHERE Action = 'RecallConfig'"
  "UPDATE InstallExecuteSequence SET Sequence = 53 WHERE Action = 'RecallEventSource'"
  "UPDATE InstallExecuteSequence SET Sequence = 54 WHERE Action = 'RecallEventLog'"
  "UPDATE InstallExecuteSequence SET Sequence = 55 WHERE Action = 'RecallMetricsFile'"
  "UPDATE InstallExecuteSequence SET Sequence = 56 WHERE Action = 'DefaultEventSource'"
  "UPDATE InstallExecuteSequence SET Sequence = 57 WHERE Action = 'DefaultEventLog'"
  "UPDATE InstallExecuteSequence SET Sequence = 1001 WHERE Action = 'DefaultConfig'"
  "UPDATE InstallExecuteSequence SET Sequence = 1002 WHERE Action = 'MetricsArguments'"
  # Before the installer's own stop, the host stops the installed service and
  # waits until its process has ended, so no file it maps is still in use when
  # files are removed or replaced (an installer that only waits for STOPPED,
  # or not at all, meets them mapped). Deferred (1024), as LocalSystem (2048),
  # the installed wd64host.exe (18), its exit code ignored (64): the
  # installer's stop still follows. Wherever the service exists: installed
  # by this product or left running by an interrupted install. Not in an
  # upgrade: the old product's removal has run its own and taken the file.
  "INSERT INTO \`CustomAction\` (\`Action\`, \`Type\`, \`Source\`, \`Target\`) VALUES ('StopServiceProcess', 3154, 'wd64host.exe', 'service stop --name \"WatchDog64\"')"
  "INSERT INTO \`InstallExecuteSequence\` (\`Action\`, \`Condition\`, \`Sequence\`) VALUES ('StopServiceProcess', '?Host=3 OR (SERVICEIMAGE AND NOT WIX_UPGRADE_DETECTED)', 1890)"
  # Message file paths as REG_EXPAND_SZ, as the host's own registration writes them.
  "UPDATE Registry SET Value = '#%[#wd64host.exe]' WHERE Value = '[#wd64host.exe]'"
  "UPDATE Registry SET Value = '#%[#CoreEventMessages.dll]' WHERE Value = '[#CoreEventMessages.dll]'"
  # (Key is a reserved word of the query language, hence the quotes.)
  # Each event source key goes as a whole on uninstall ('-'), and only that
  # key: other sources in the same log keep theirs.
  "INSERT INTO \`Registry\` (\`Registry\`, \`Root\`, \`Key\`, \`Name\`, \`Component_\`) VALUES ('HostSourceKey', 2, 'SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\WatchDog64', '-', 'Host')"
  "INSERT INTO \`Registry\` (\`Registry\`, \`Root\`, \`Key\`, \`Name\`, \`Component_\`) VALUES ('ModuleSourceKey', 2, 'SYSTEM\\CurrentControlSet\\Services\\EventLog\\[EVENTLOG]\\[EVENTSOURCE]', '-', 'EventMessages')"
  "INSERT INTO \`Registry\` (\`Registry\`, \`Root\`, \`Key\`, \`Name\`, \`Component_\`) VALUES ('SettingsKey', 2, 'SOFTWARE\\WatchDog64', '-', 'Settings')"
  # The administrator's properties reach the elevated part of a managed
  # install (Group Policy, SCCM) only when listed as secure.
  "UPDATE Property SET Value = 'WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED;INSTALLDIR;CONFIG;EVENTSOURCE;EVENTLOG;METRICSFILE' WHERE Property = 'SecureCustomProperties'"
  # The installed configuration is the administrator's from then on:
  # permanent (16) and never overwritten (128), on top of 64-bit (256).
  "UPDATE Component SET Attributes = 400 WHERE Component = 'DefaultConfiguration'"
)
# Binaries carry the product version, so Windows Installer's file version
# rules apply to them rather than hashes.
for file in wd64host.exe WatchDog64.dll DataLayer.dll CoreErrorMessages.dll CoreEventMessages.dll; do
  queries+=("UPDATE File SET Version = '$version', Language = '1033' WHERE File = '$file'")
  queries+=("DELETE FROM MsiFileHash WHERE File_ = '$file'")
done
args=()
for query in "${queries[@]}"; do args+=(-q "$query"); done

# The program, configuration and metrics folders get a protected DACL
# (SYSTEM and Administrators full control, Users read and execute) when
# CreateFolders makes them, before any file is installed into them: the
# service runs what they hold as LocalSystem. A folder that already exists
# gets the DACL too; whoever owns it stays its owner, and a file already in it
# is not trusted for that: the service judges its owner and DACL at start.
sddl='D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)'
{
  printf 'MsiLockPermissionsEx\tLockObject\tTable\tSDDLText\tCondition\r\n'
  printf 's72\ts72\ts32\ts0\tS255\r\n'
  printf 'MsiLockPermissionsEx\tMsiLockPermissionsEx\r\n'
  for folder in INSTALLDIR CONFIGDIR METRICSDIR; do
    printf 'Lock%s\t%s\tCreateFolder\t%s\t\r\n' "$folder" "$folder" "$sddl"
  done
} > "$work/MsiLockPermissionsEx.idt"
args+=(-i "$work/MsiLockPermissionsEx.idt")
msibuild "$work/package.msi" "${args[@]}"
mkdir -p "$(dirname "$output")"
mv "$work/package.msi" "$output"
