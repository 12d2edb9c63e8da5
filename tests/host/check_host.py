#!/usr/bin/env python3
"""wd64host.exe driven as an administrator drives it: a separate process under
Wine, judged by its exit code, its output and (for --json) Python's own JSON
reader. Faults are counted: every log file must end up either still in its
folder or inside an archive.

Usage: check_host.py BIN_DIR WINE_RUN PREFIX SERVICE_PREFIX
"""

import contextlib
import json
import os
import queue
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
import unittest
import zipfile

BIN, WINE_RUN, PREFIX, SERVICE_PREFIX = sys.argv[1:5]
HOST = os.path.join(BIN, "wd64host.exe")
WORK = os.path.join(BIN, "host-py")
WINESERVER = "/usr/lib/wine/wineserver"


def win(path):
    """The Windows name of a Linux path under Wine's Z: drive."""
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def jstr(path):
    return json.dumps(win(path))


def host(*args, prefix=PREFIX, env=None, timeout=120):
    environment = dict(os.environ, WINEDEBUG="-all")
    environment.update(env or {})
    done = subprocess.run([WINE_RUN, prefix, HOST, *args], capture_output=True, env=environment, timeout=timeout)
    return done.returncode, done.stdout.decode("utf-8", "replace"), done.stderr.decode("utf-8", "replace")


def folder(name):
    path = os.path.join(WORK, name)
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)
    return path


def write(path, text, encoding="utf-8"):
    with open(path, "wb") as out:
        out.write(text.encode(encoding) if isinstance(text, str) else text)


def unique_keys(pairs):
    """object_pairs_hook: keys that differ only in case are refused, as
    PowerShell's ConvertFrom-Json refuses them."""
    seen = set()
    for key, _ in pairs:
        if key.lower() in seen:
            raise ValueError("keys collide: " + key)
        seen.add(key.lower())
    return dict(pairs)


def envelope(text):
    return json.loads(text, object_pairs_hook=unique_keys)


class CommandLine(unittest.TestCase):
    def test_mistakes_are_refused_with_exit_2(self):
        for args in (["check", "--conf", "bad.jsonc"], ["service", "install", "--conf", "x.jsonc"],
                     ["run", "--for", "-1"], ["run", "--for", "0"], ["run", "--for", "4294968"],
                     ["run", "stray"], ["request"], ["service"], ["service", "remove"], ["eventsource"],
                     ["frobnicate"], ["service", "install", "--name", "a\\b"], []):
            rc, out, err = host(*args)
            self.assertEqual(rc, 2, (args, out, err))
            self.assertNotIn("running", out)
        # The mistyped install made nothing.
        rc, out, err = host("service", "status")
        self.assertEqual(rc, 1, out + err)
        self.assertIn("does not exist", err)

    def test_help_and_version(self):
        rc, out, err = host("run", "--help")
        self.assertEqual(rc, 0, err)
        self.assertIn("--for", out)
        self.assertNotIn("running", out)
        rc, out, err = host("--version")
        self.assertEqual(rc, 0, err)
        self.assertRegex(out, r"^wd64host \d+\.\d+\.\d+\.\d+")
        rc, out, err = host("service", "install", "--help")
        self.assertEqual(rc, 0, err)
        self.assertIn("--metrics-file", out)


    def test_missing_libraries_are_named(self):
        alone = folder("alone")
        shutil.copy(HOST, alone)
        lonely = os.path.join(alone, "wd64host.exe")
        environment = dict(os.environ, WINEDEBUG="-all")
        for copied, missing in (((), "DataLayer.dll"), (("DataLayer.dll",), "WatchDog64.dll")):
            for name in copied:
                shutil.copy(os.path.join(BIN, name), alone)
            for args in (["request", "ListDisks"], ["run", "--for", "1"], ["components"]):
                done = subprocess.run([WINE_RUN, PREFIX, lonely, *args], capture_output=True, env=environment,
                                      timeout=120)
                err = done.stderr.decode("utf-8", "replace")
                self.assertEqual(done.returncode, 1, (args, err))
                self.assertIn(win(os.path.join(alone, missing)), err)
            rc = subprocess.run([WINE_RUN, PREFIX, lonely, "request", "ListDisks", "--json"], capture_output=True,
                                env=environment, timeout=120)
            self.assertEqual(rc.returncode, 1)
            self.assertIn(missing, envelope(rc.stdout.decode("utf-8"))["error"]["message"])

        # A program folder that others may add to is refused by check and by
        # service install, before any module of it is loaded.
        shutil.copy(os.path.join(BIN, "WatchDog64.dll"), alone)
        os.chmod(alone, 0o777)
        for args in (["check"], ["service", "install", "--name", "WD64PyOpenFolder"]):
            done = subprocess.run([WINE_RUN, PREFIX, lonely, *args], capture_output=True, env=environment, timeout=120)
            out = done.stdout.decode("utf-8", "replace")
            self.assertEqual(done.returncode, 2, (args, out))
            self.assertIn(f"{win(alone)}: program folder: Everyone (S-1-1-0) may write to it {RULE}", out)
        self.assertEqual(host("service", "status", "--name", "WD64PyOpenFolder")[0], 1)


# What every refusal of a file others may change ends with.
RULE = ("(only SYSTEM, Administrators, TrustedInstaller and the account the host runs as may own or change what it "
        "acts on)")


class Check(unittest.TestCase):
    def test_every_problem_with_file_and_place(self):
        base = folder("check")
        # Wine shows a Unix mode open to all as Everyone holding write access,
        # the one owner or DACL fault it can show.
        os.chmod(base, 0o777)
        bad = os.path.join(base, "bad.jsonc")
        write(bad, """{
  "globalSettings": { "Loger": { "MaxSeverity": "INFO" },
                      "Logger": { "MaxSeverty": "INFO", "MaxSeverity": "VERBOSE", "KeepOpenInterval": "12abc" } },
  "freeSpaceWatcher": { "ActionsPerformIntervalSec": 4294968, "groups": [
    { "Paths": [], "ServiceNames": [], "EventResendTimeoutSec": 5000000 },
    { "Paths": ["C:\\\\"], "ServiceNames": [], "FreeSpaceStopServicesLowerBoundGB": 30 },
    { "Paths": ["C:\\\\"], "ServiceNames": [], "FreeSpaceRestartServicesLowerBoundGB": 10 } ] },
  "watchdog": { "RefreshIntervalSeconds": 0 },
  "logPacker": { "LogsDirectoryPath": "Logs", "LogFileMask": "*.log", "MaxLogFileAgeInHours": -1,
                 "MaxLogFileSizeInMegabytes": 1, "PackIntervalSeconds": 18446744073709552, "LogFileMask": "*.txt" },
  "metrics": { "path": "m.prom", "intervalSeconds": 0 }
}""")
        rc, out, err = host("check", "--config", win(bad))
        self.assertEqual(rc, 2, out + err)
        name = win(bad)
        for place, text in (("/globalSettings/Loger", "unknown settings section"),
                            ("/globalSettings/Logger/MaxSeverty", "unknown key"),
                            ("/globalSettings/Logger/MaxSeverity", '"VERBOSE" is not a severity'),
                            ("/globalSettings/Logger/KeepOpenInterval", "\"12abc\" is not a whole number"),
                            ("/freeSpaceWatcher/ActionsPerformIntervalSec", "must be 1 to 4294967"),
                            ("/freeSpaceWatcher/groups/0/EventResendTimeoutSec", "must be 1 to 2147483"),
                            ("/freeSpaceWatcher/groups/0/Paths", "must list at least one folder"),
                            ("/freeSpaceWatcher/groups/1", "The warning bound must be above the stop-services bound"),
                            ("/freeSpaceWatcher/groups/2",
                             '"FreeSpaceRestartServicesLowerBoundGB" must be at or above the warning bound'),
                            ("/watchdog/RefreshIntervalSeconds", "must be 1 to"),
                            ("/logPacker/MaxLogFileAgeInHours", "must be 0 to"),
                            ("/logPacker/PackIntervalSeconds", "must be 1 to 4294967"),
                            ("/logPacker/LogFileMask", "key given twice"),
                            ("/metrics/intervalSeconds", "must be 1 to 86400")):
            self.assertIn(f"{name}: {place}: {text}", out)
        untrusted = f"{win(base)}: folder of the configuration {name}: Everyone (S-1-1-0) may write to it {RULE}"
        self.assertIn(untrusted, out)
        self.assertIn("15 error(s)", out)

        # The same file stops `run` before anything starts, with the same
        # texts; at a prompt the folder is only warned about.
        rc, out, err = host("run", "--for", "1", "--config", win(bad))
        self.assertEqual(rc, 2, out + err)
        self.assertIn(f"{name}: /watchdog/RefreshIntervalSeconds: must be 1 to", err)
        self.assertRegex(out, r"(?m)^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d warning: " + re.escape(untrusted) + r"\r?$")
        self.assertNotIn("running", out)

    def test_the_sample_configuration_is_valid(self):
        sample = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "config",
                              "watchdog64.sample.jsonc")
        rc, out, err = host("check", "--warnings-ok", "--config", win(sample))
        self.assertEqual(rc, 0, out + err)
        self.assertIn("valid for the module", out)

    def test_warnings_encodings_and_names_outside_the_code_page(self):
        base = folder("check-warnings")
        watched = os.path.join(base, "Ωμέγα-日本")
        os.makedirs(watched)
        text = """{ "freeSpaceWatcher": { "groups": [ { "name": "архив",
              "Paths": [ %s, %s ], "ServiceNames": [ "WD64NoSuchService" ] } ] },
              "watchdog": { "RefreshIntervalSeconds": 30 } }""" % (
            jstr(watched), jstr(os.path.join(base, "gone-ß")))
        for encoding, prefix in (("utf-8", b""), ("utf-8", b"\xef\xbb\xbf"), ("utf-16-le", b"\xff\xfe"),
                                 ("utf-16-be", b"\xfe\xff")):
            config = os.path.join(base, f"конфиг-{encoding}.jsonc")
            write(config, prefix + text.encode(encoding))
            rc, out, err = host("check", "--config", win(config))
            self.assertEqual(rc, 3, (encoding, out, err))
            self.assertIn(f"{win(config)}: /freeSpaceWatcher/groups/0/Paths/1: warning: group 'архив' watches", out)
            self.assertIn("gone-ß", out)
            self.assertNotIn("/Paths/0", out)
            self.assertIn("/freeSpaceWatcher/groups/0/ServiceNames/0: warning:", out)
            self.assertIn("WD64NoSuchService", out)
            rc, out, err = host("check", "--warnings-ok", "--config", win(config))
            self.assertEqual(rc, 0, out + err)

        broken = os.path.join(base, "broken.jsonc")
        write(broken, b"\xff\xfe{\x00 ")
        rc, out, err = host("check", "--config", win(broken))
        self.assertEqual(rc, 2, out + err)
        rc, out, err = host("check", "--config", win(os.path.join(base, "absent.jsonc")))
        self.assertEqual(rc, 2, out + err)
        self.assertIn("absent.jsonc: file: cannot be opened", out)


class EventSource(unittest.TestCase):
    """`eventsource` and `check` name the source the module will use, from the
    configuration, the GS_ variables and the INI files alike."""

    def test_configuration_ini_and_environment(self):
        base = folder("eventsource")
        config = os.path.join(base, "source.jsonc")
        write(config, """{ "globalSettings": { "CoreEventSource": { "EventSourceName": "WD64 Py Source",
                              "EventLogName": "WD64PyLog" } }, "watchdog": { "RefreshIntervalSeconds": 30 } }""")
        ini = os.path.join(base, "settings.ini")
        write(ini, "[CoreEventSource]\r\nEventSourceName=WD64 Ini Source\r\nEventLogName=WD64IniLog\r\n")
        # Registrations an interrupted run left in the prefix go first.
        host("eventsource", "unregister", "--config", win(config))
        host("eventsource", "unregister", env={"GLOBAL_SETTINGS_INI": win(ini)})
        rc, out, err = host("check", "--config", win(config))
        self.assertEqual(rc, 3, out + err)
        self.assertIn("'WD64 Py Source' in log 'WD64PyLog'", out)
        rc, out, err = host("eventsource", "register", "--config", win(config))
        self.assertEqual(rc, 0, out + err)
        self.assertIn("'WD64 Py Source' in log 'WD64PyLog': done", out)
        rc, out, err = host("check", "--config", win(config))
        self.assertEqual(rc, 0, out + err)
        rc, out, err = host("eventsource", "unregister", "--config", win(config))
        self.assertEqual(rc, 0, out + err)
        rc, out, err = host("eventsource", "unregister", "--config", win(config))
        self.assertIn("was not registered", out + err)

        env = {"GLOBAL_SETTINGS_INI": win(ini)}
        rc, out, err = host("eventsource", "register", env=env)
        self.assertEqual(rc, 0, out + err)
        self.assertIn("'WD64 Ini Source' in log 'WD64IniLog'", out)
        env["GS_CoreEventSource_EventSourceName"] = "WD64 Env Source"
        rc, out, err = host("check", env=env)
        self.assertIn("'WD64 Env Source' in log 'WD64IniLog'", out, err)

        # Values the module would not understand, wherever they come from.
        write(ini, "[Logger]\r\nMaxSeverity=VERBOSE\r\n[CoreEventSource]\r\nEventSourceName=WD64 Ini Source\r\n"
                   "EventLogName=WD64IniLog\r\n")
        rc, out, err = host("check", env={"GLOBAL_SETTINGS_INI": win(ini), "GS_Logger_KeepOpenInterval": "5s"})
        self.assertEqual(rc, 2, out + err)
        self.assertRegex(out, r"INI files \(GLOBAL_SETTINGS_INI, .*\): \[Logger\] MaxSeverity: \"VERBOSE\" is not")
        self.assertIn("GS_Logger_KeepOpenInterval: [Logger] KeepOpenInterval: \"5s\" is not a whole number", out)
        rc, out, err = host("eventsource", "unregister", env={"GLOBAL_SETTINGS_INI": win(ini)})
        self.assertIn(": done", out, err)


class Requests(unittest.TestCase):
    def test_one_envelope_for_every_request(self):
        base = folder("requests")
        config = os.path.join(base, "pack.jsonc")
        write(config, '{ "logPacker": { "LogsDirectoryPath": %s, "LogFileMask": "*.log", "MaxLogFileAgeInHours": 24,'
                      ' "MaxLogFileSizeInMegabytes": 1 } }' % jstr(base))
        for args in (["ListDisks"], ["ListProcesses"], ["ListServices"], ["QueryFreeSpace", "DirectoryPaths=C:\\"],
                     ["StopServices", "Service=WD64X|X service"], ["PackLogs", "--config", win(config)]):
            rc, out, err = host("request", *args, "--json")
            self.assertEqual(rc, 0, (args, out, err))
            result = envelope(out)
            self.assertEqual(list(result), ["request", "ok", "items"])
            self.assertEqual(result["request"], args[0])
            self.assertIs(result["ok"], True)
            for item in result["items"]:
                for key, value in item.items():
                    if key in ("Id", "freeBytes", "freeMB", "files", "bytes", "skipped"):
                        self.assertIsInstance(value, int, (key, value))
        services = envelope(host("request", "ListServices", "--json")[1])["items"]
        self.assertTrue(any(item["node"] == item["Name"] for item in services))

        for args, code, text in ((["QueryFreeSpace", "DirectoryPaths=C:\\;Q:\\nowhere"], 1, "Q:\\nowhere"),
                                 (["listdisks"], 2, "unknown request 'listdisks'"),
                                 (["ListDisks", "--config", win(os.path.join(base, "none.jsonc"))], 2, "none.jsonc"),
                                 (["QueryFreeSpace"], 2, "DirectoryPaths"),
                                 (["ListDisks", "--jsn"], 2, "--jsn")):
            rc, out, err = host("request", *args, "--json")
            self.assertEqual(rc, code, (args, out, err))
            result = envelope(out)
            self.assertIs(result["ok"], False)
            self.assertIsInstance(result["error"]["hresult"], int)
            self.assertGreaterEqual(result["error"]["hresult"], 0x80000000)
            self.assertIn(text, result["error"]["message"])
            self.assertNotRegex(result["error"]["message"], r"\[.*0x[0-9A-F]{8,}.*\]")
            rc, out, err = host("request", *args)
            self.assertEqual(rc, code, (args, out, err))
            self.assertIn(text, err)
        # The module's return addresses only on request.
        rc, out, err = host("request", "QueryFreeSpace", "DirectoryPaths=Q:\\nowhere", "--verbose")
        self.assertRegex(err, r"File not found \[0x[0-9A-F]+")

    def test_cmd_exe_quoting_from_the_documentation(self):
        # Each form INSTALL.txt shows, typed at a real cmd.exe (a batch file
        # keeps the line exactly as written).
        base = folder("cmd")
        for index, line in enumerate(('wd64host request QueryFreeSpace DirectoryPaths=C:\\;Z:\\',
                                      'wd64host request QueryFreeSpace "DirectoryPaths=C:\\;Z:\\\\"',
                                      'wd64host request QueryFreeSpace "DirectoryPaths=C:\\;Z:\\"')):
            batch = os.path.join(base, f"line{index}.cmd")
            write(batch, f"@cd /d {win(BIN)}\r\n@{line}\r\n")
            environment = dict(os.environ, WINEDEBUG="-all")
            done = subprocess.run([WINE_RUN, PREFIX, "cmd", "/c", win(batch)], capture_output=True, env=environment,
                                  timeout=120)
            out = done.stdout.decode("utf-8", "replace")
            self.assertEqual(done.returncode, 0, (line, out, done.stderr))
            self.assertRegex(out, r"(?m)^C:\\ +\d+", line)
            self.assertRegex(out, r"(?m)^Z:\\ +\d+", line)


def held_open(path):
    """Whether some process on this machine has `path` open."""
    wanted = os.path.realpath(path)
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if any(os.readlink(f"/proc/{pid}/fd/{fd}") == wanted for fd in os.listdir(f"/proc/{pid}/fd")):
                return True
        except OSError:
            pass
    return False


def archived_names(logs):
    names = []
    for name in os.listdir(logs):
        if name.startswith("logs_") and name.endswith(".zip"):
            with zipfile.ZipFile(os.path.join(logs, name)) as archive:
                names += archive.namelist()
    return names


def make_logs(logs, count, size=4096, foreign=()):
    names = [f"service-{i:03}.log" for i in range(count)] + list(foreign)
    old = time.time() - 3 * 86400
    for name in names:
        write(os.path.join(logs, name), "x" * size)
        os.utime(os.path.join(logs, name), (old, old))
    write(os.path.join(logs, "today.log"), "fresh")
    return set(names)


def packer_config(base, logs):
    config = os.path.join(base, "run.jsonc")
    write(config, '{ "logPacker": { "LogsDirectoryPath": %s, "LogFileMask": "*.log", "MaxLogFileAgeInHours": 24,'
                  ' "MaxLogFileSizeInMegabytes": 100, "PackIntervalSeconds": 1 } }' % jstr(logs))
    return config


class RunAndFaults(unittest.TestCase):
    def lost(self, logs, names):
        # A file the packer moved aside and could not take yet is still there.
        on_disk = {name[len("~wd64pack.") + 17:] if name.startswith("~wd64pack.") else name
                   for name in os.listdir(logs)}
        return sorted(name for name in names if name not in on_disk and name not in archived_names(logs))

    def test_run_says_what_it_packed(self):
        base = folder("run")
        logs = os.path.join(base, "logs")
        os.makedirs(logs)
        names = make_logs(logs, 7)
        config = packer_config(base, logs)
        metrics = os.path.join(base, "wd64.prom")
        rc, out, err = host("run", "--for", "3", "--config", win(config), "--metrics-file", win(metrics))
        self.assertEqual(rc, 0, out + err)
        stamp = r"(?m)^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d "
        self.assertRegex(out, stamp + r"log packer: configured, packing \*\.log in ")
        self.assertRegex(out, stamp + r"log packer: packed 7 files, 28\d\d\d bytes into logs_\d{14}\.zip")
        self.assertRegex(out, stamp + r"log packer: nothing to pack")
        self.assertRegex(out, stamp + r"log packer: released")
        self.assertNotIn("watchdog", out)  # not configured, so not "stopped" either
        self.assertEqual(self.lost(logs, names), [])
        self.assertIn("today.log", os.listdir(logs))
        # The metrics file the run left, read as Prometheus reads it.
        from prometheus_client.parser import text_string_to_metric_families
        with open(metrics, encoding="utf-8") as text:
            samples = {(sample.name, tuple(sorted(sample.labels.items()))): sample.value
                       for family in text_string_to_metric_families(text.read()) for sample in family.samples}
        self.assertEqual(samples[("wd64_logpacker_files_packed_total", ())], 7)
        self.assertEqual(samples[("wd64_logpacker_failures_total", ())], 0)
        self.assertGreaterEqual(samples[("wd64_logpacker_runs_total", ())], 2)
        self.assertEqual(samples[("wd64_logpacker_last_run_success", ())], 1)
        # Counted by the packer without any retention limit; nothing deleted.
        zips = [os.path.join(logs, name) for name in os.listdir(logs) if name.startswith("logs_")]
        self.assertEqual(samples[("wd64_logpacker_archives", ())], 1)
        self.assertEqual(samples[("wd64_logpacker_archive_bytes", ())], os.path.getsize(zips[0]))
        self.assertEqual(samples[("wd64_logpacker_archives_deleted_total", ())], 0)
        self.assertEqual(samples[("wd64_build_info", (("version", "7.0.127.0"),))], 1)
        self.assertFalse([name for name in os.listdir(base) if name.endswith(".tmp")])

    def test_run_with_every_section_starts_and_stops_each(self):
        # The watcher's group lies above the disk's free space, so its first
        # cycle writes a critical event to the events file the settings name.
        base = folder("run-all")
        logs = os.path.join(base, "logs")
        os.makedirs(logs)
        write(os.path.join(logs, "big.log"), "x" * (2 * 1024 * 1024 + 1))
        write(os.path.join(logs, "small.log"), "fresh\r\n")
        free_mb = shutil.disk_usage(base).free >> 20
        events, metrics = os.path.join(base, "events.log"), os.path.join(base, "wd64.prom")
        group = {"FreeSpaceStopServicesLowerBoundMB": free_mb + 1024, "FreeSpaceWarningLowerBoundMB": free_mb + 2048,
                 "FreeSpaceRecommendedMinimumMB": free_mb + 4096, "Paths": [win(base)],
                 "ServiceNames": ["WD64PyNoSuchService"]}
        config = os.path.join(base, "config.jsonc")
        write(config, "// everything at once, on short intervals\n" + json.dumps({
            "globalSettings": {"EventReporting": {"EventsLogFile": win(events)}},
            "freeSpaceWatcher": {"ActionsPerformIntervalSec": 1, "groups": [group]},
            "watchdog": {"RefreshIntervalSeconds": 1},
            "logPacker": {"LogsDirectoryPath": win(logs), "LogFileMask": "*.log", "MaxLogFileAgeInHours": 24,
                          "MaxLogFileSizeInMegabytes": 2},
            "metrics": {"intervalSeconds": 1}}, indent=2))
        rc, out, err = host("run", "--for", "5", "--config", win(config), "--metrics-file", win(metrics))
        self.assertEqual(rc, 0, out + err)
        for piece in ("log packer: packed 1 file, 2097153 bytes into logs_", "free-space watcher: configured, 1 group(s)",
                      "watchdog: configured, heartbeat every 1 s", "free-space watcher: stopped", "watchdog: stopped",
                      "log packer: released",
                      # The section's interval holds for a file named on the command line.
                      f"metrics: written to {win(metrics)} every 1 s"):
            self.assertIn(piece, out)
        self.assertTrue(os.path.exists(metrics))
        with open(events, "rb") as entries:
            text = entries.read().decode("utf-16-le")
        self.assertIn("EventId: 4302; Type: 'Error'(1)", text)
        self.assertIn("WD64PyNoSuchService", text)
        self.assertEqual(sorted(name for name in os.listdir(logs) if not name.startswith("logs_")), ["small.log"])
        self.assertEqual(len([name for name in os.listdir(logs) if name.startswith("logs_")]), 1)

    def test_names_outside_the_code_page(self):
        # Packed under their own names; nothing lost.
        base = folder("foreign")
        logs = os.path.join(base, "logs")
        os.makedirs(logs)
        names = make_logs(logs, 3, foreign=("журнал-日本.log", "Ωμέγα ß.log"))
        rc, out, err = host("request", "PackLogs", "--json", "--config", win(packer_config(base, logs)))
        self.assertEqual(rc, 0, out + err)
        self.assertTrue({"журнал-日本.log", "Ωμέγα ß.log"} <= set(archived_names(logs)), archived_names(logs))
        self.assertEqual(self.lost(logs, names), [])

    def test_held_file_is_reported_and_kept(self):
        base = folder("held")
        logs = os.path.join(base, "logs")
        os.makedirs(logs)
        names = make_logs(logs, 2)
        environment = dict(os.environ, WINEDEBUG="-all")
        held = os.path.join(logs, "service-000.log")
        holder = subprocess.Popen([WINE_RUN, PREFIX, os.path.join(BIN, "test_helper.exe"), "hold", win(held),
                                   "120000"], env=environment, start_new_session=True)
        try:
            # The Wine server keeps a Unix descriptor of every open file.
            deadline = time.time() + 60
            while not held_open(held) and time.time() < deadline:
                time.sleep(0.05)
            rc, out, err = host("request", "PackLogs", "--json", "--config", win(packer_config(base, logs)))
        finally:
            os.killpg(holder.pid, signal.SIGKILL)
            holder.wait()
        self.assertEqual(rc, 0, out + err)
        item = envelope(out)["items"][0]
        self.assertEqual((item["files"], item["skipped"]), (len(names) - 1, 1), item)
        self.assertEqual(self.lost(logs, names), [])

    def test_two_packers_at_once_lose_nothing(self):
        base = folder("faults")
        logs = os.path.join(base, "logs")
        os.makedirs(logs)
        config = packer_config(base, logs)
        names = make_logs(logs, 150, size=20000)
        environment = dict(os.environ, WINEDEBUG="-all")
        both = [subprocess.Popen([WINE_RUN, PREFIX, HOST, "request", "PackLogs", "--json", "--config", win(config)],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment) for _ in range(2)]
        outputs = [process.communicate(timeout=300) for process in both]
        lost = self.lost(logs, names)
        print(f"two packers at once: {len(names)} files, {len(lost)} lost", file=sys.stderr)
        self.assertEqual(lost, [], outputs)
        for process, (out, _) in zip(both, outputs):
            self.assertIn(process.returncode, (0, 1), out)
            envelope(out.decode("utf-8"))

    def test_killed_run_loses_nothing(self):
        """`run` killed (SIGKILL, as a crash or power loss would) while its
        first pack run writes the archive: every log is afterwards still in
        the folder (perhaps moved aside for the next run) or inside a
        readable archive, and no logs_*.zip is unreadable."""
        base = folder("killed")
        logs = os.path.join(base, "logs")
        os.makedirs(logs)
        config = packer_config(base, logs)
        environment = dict(os.environ, WINEDEBUG="-all")
        random.seed(13)
        total_lost = 0
        for round in range(4):
            for name in os.listdir(logs):
                # The killed run's lock file goes when Wine's server closes
                # its handles, which may be just now.
                with contextlib.suppress(FileNotFoundError):
                    os.remove(os.path.join(logs, name))
            names = make_logs(logs, 300, size=100000)
            process = subprocess.Popen([WINE_RUN, PREFIX, HOST, "run", "--config", win(config)],
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=environment,
                                       start_new_session=True)
            # Killed at a random moment once the run has started its archive.
            deadline = time.time() + 60
            while time.time() < deadline and not any(n.startswith(("~wd64zip.", "logs_")) for n in os.listdir(logs)):
                time.sleep(0.002)
            time.sleep(random.uniform(0, 2.0))
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            on_disk, packed = set(), set()
            for name in os.listdir(logs):
                if name.startswith("logs_") and name.endswith(".zip"):
                    # A published archive is always whole.
                    with zipfile.ZipFile(os.path.join(logs, name)) as archive:
                        self.assertIsNone(archive.testzip(), name)
                        packed |= set(archive.namelist())
                elif name.startswith("~wd64pack."):
                    on_disk.add(name[len("~wd64pack.") + 17:])
                else:
                    on_disk.add(name)
            lost = [name for name in names if name not in on_disk and name not in packed]
            total_lost += len(lost)
            print(f"run killed, round {round}: {len(names)} files, {len(packed)} in archives, {len(lost)} lost",
                  file=sys.stderr)
        self.assertEqual(total_lost, 0)


class ServicePrefix(unittest.TestCase):
    """A service in a prefix of its own, whose service manager is started by
    this test with the eventlog debug channel on, so ReportEventW's trace of
    the host's events reaches `trace`. An idle program keeps that server up
    for the whole test: a server on its way out, between two commands, can
    refuse the next one."""

    NAME = "WD64PyService"

    def setUp(self):
        self.trace = os.path.join(WORK, "service-trace.txt")
        os.makedirs(WORK, exist_ok=True)
        quiet = dict(stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        subprocess.run([WINE_RUN, SERVICE_PREFIX, HOST, "--version"], **quiet, stderr=subprocess.DEVNULL, timeout=300)
        subprocess.run([WINESERVER, "-k"], env=dict(os.environ, WINEPREFIX=os.path.abspath(SERVICE_PREFIX)))
        subprocess.run([WINESERVER, "-w"], env=dict(os.environ, WINEPREFIX=os.path.abspath(SERVICE_PREFIX)))
        self.log = open(self.trace, "wb")
        # Whichever of these two starts the server, its output is no pipe
        # (the server would hold it) and the debug channel is on.
        environment = dict(os.environ, WINEDEBUG="+eventlog")
        self.keeper = subprocess.Popen([WINE_RUN, SERVICE_PREFIX, os.path.join(BIN, "test_helper.exe"), "sleep",
                                        "3600000"], **quiet, stderr=self.log, env=environment, start_new_session=True)
        for _ in range(3):
            if subprocess.run([WINE_RUN, SERVICE_PREFIX, HOST, "--version"], **quiet, stderr=self.log,
                              env=environment, timeout=300).returncode == 0:
                break
            time.sleep(2)

    def stop_keeper(self):
        if self.keeper.poll() is None:
            os.killpg(self.keeper.pid, signal.SIGKILL)
            self.keeper.wait()

    def tearDown(self):
        self.svc("service", "uninstall", "--name", self.NAME)
        self.stop_keeper()
        self.log.close()

    def svc(self, *args):
        environment = dict(os.environ, WINEDEBUG="+eventlog")
        done = subprocess.run([WINE_RUN, SERVICE_PREFIX, HOST, *args], stdout=subprocess.PIPE, stderr=self.log,
                              env=environment, timeout=180)
        return done.returncode, done.stdout.decode("utf-8", "replace")

    def services_running(self):
        """The service programs running in the prefix, the asking wd64host aside."""
        rc, out = self.svc("request", "ListProcesses", "--json")
        self.assertEqual(rc, 0, out)
        paths = [(item.get("ExecutablePath") or "").lower() for item in envelope(out)["items"]]
        running = [path for path in paths if path.endswith(("wd64host.exe", "test_service.exe"))]
        running.remove(next(path for path in running if path.endswith("wd64host.exe")))
        return running


class Service(ServicePrefix):
    def test_start_failure_reaches_the_event_log(self):
        base = folder("service")
        config = os.path.join(base, "служба.jsonc")
        write(config, '{ "watchdog": { "RefreshIntervalSeconds": 30 } }')
        rc, out = self.svc("service", "install", "--name", self.NAME, "--config", win(config))
        self.assertEqual(rc, 0, out)
        self.assertIn(f'--config "{win(config)}"', out)
        rc, out = self.svc("service", "start", "--name", self.NAME)
        self.assertEqual(rc, 0, out)
        rc, out = self.svc("service", "status", "--name", self.NAME)
        self.assertIn("running", out)
        rc, out = self.svc("service", "stop", "--name", self.NAME)
        self.assertEqual(rc, 0, out)
        rc, out = self.svc("service", "status", "--name", self.NAME)
        self.assertIn("stopped", out)
        self.assertNotIn("last exit", out)  # a clean stop, no error code

        # Installing again updates the command line.
        metrics = os.path.join(base, "wd64.prom")
        rc, out = self.svc("service", "install", "--name", self.NAME, "--config", win(config),
                           "--metrics-file", win(metrics))
        self.assertEqual(rc, 0, out)
        self.assertIn("updated", out)
        rc, out = self.svc("service", "status", "--name", self.NAME)
        self.assertIn(f'--metrics-file "{win(metrics)}"', out)

        # The configuration goes bad after installation.
        write(config, '{ "watchdog": { "RefreshIntervalSeconds": 30, } }')
        rc, out = self.svc("service", "start", "--name", self.NAME)
        self.assertEqual(rc, 1, out)
        rc, out = self.svc("service", "status", "--name", self.NAME)
        self.assertIn("stopped, last exit: service-specific code 1", out)
        write(config, '{ "watchdog": { "RefreshIntervalSeconds": 30 } }')
        os.chmod(config, 0o666)
        rc, out = self.svc("service", "start", "--name", self.NAME)
        self.assertEqual(rc, 1, out)
        self.assertIn("service-specific code 1", self.svc("service", "status", "--name", self.NAME)[1])
        self.stop_keeper()
        subprocess.run([WINESERVER, "-w"], env=dict(os.environ, WINEPREFIX=os.path.abspath(SERVICE_PREFIX)),
                       timeout=120)
        self.log.flush()
        with open(self.trace, "rb") as log:
            trace = log.read().decode("utf-8", "replace")
        # Wine traces an error-type event's strings at "err", others at "trace".
        errors = re.findall(r"err:eventlog:ReportEventW (.*)", trace)
        self.assertIn(f'L"{self.NAME}"', errors)
        self.assertTrue(any("line 1, column 47: syntax error" in line for line in errors), errors)
        # A configuration others may change is not read at all: same code, and
        # the event names the file and who may write to it.
        self.assertTrue(any("jsonc: configuration: Everyone (S-1-1-0) may write to it" in line for line in errors),
                        errors)
        self.assertTrue(re.search(r"trace:eventlog:ReportEventW L\"configured\"", trace))

        rc, out = self.svc("service", "uninstall", "--name", self.NAME)
        self.assertEqual(rc, 0, out)
        rc, out = self.svc("service", "status", "--name", self.NAME)
        self.assertEqual(rc, 1, out)


class ServiceFaults(ServicePrefix):
    """Two stops, then two uninstalls, of one service at once. Windows' service
    manager hands a service one control at a time, so the later command finds
    the service stopping, its own stop refused, and must wait like the first.
    Wine's kills a service that a second stop reaches before it has answered
    the first, so the commands here go in that order: the service answers at
    once and stays stopping until `release` exists, the second command starts
    once the first stop was answered, and the service is let go once the
    second command has sent its own stop (both seen in Wine's +service trace).
    """

    NAME = "WD64PyServiceTwice"

    def setUp(self):
        super().setUp()
        self.release = os.path.join(folder("service-twice"), "release")
        command = f'"{win(os.path.join(BIN, "test_service.exe"))}" {self.NAME} slow-stop {win(self.release)}'
        done = subprocess.run([WINE_RUN, SERVICE_PREFIX, "sc", "create", self.NAME, "binpath=", command],
                              stdout=subprocess.PIPE, stderr=self.log, timeout=180)
        self.assertEqual(done.returncode, 0)

    def tearDown(self):
        write(self.release, "")  # lets a service the test left stopping go
        super().tearDown()

    def traced(self, *args):
        """wd64host with Wine's service-call trace read line by line as it runs."""
        process = subprocess.Popen([WINE_RUN, SERVICE_PREFIX, HOST, *args], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, env=dict(os.environ, WINEDEBUG="+service"))
        process.lines = queue.Queue()
        process.trace = []

        def read():
            for line in process.stderr:
                process.trace.append(line.decode("utf-8", "replace"))
                process.lines.put(process.trace[-1])
            process.lines.put(None)
        process.reader = threading.Thread(target=read, daemon=True)
        process.reader.start()
        return process

    def wait_for_calls(self, process, *calls):
        for call in calls:
            while True:
                line = process.lines.get(timeout=120)
                self.assertIsNotNone(line, (call, process.trace))
                if f":service:{call} " in line:
                    break

    def finish(self, process):
        with process:
            out = process.stdout.read().decode("utf-8", "replace")
            process.reader.join(timeout=180)
        return process.returncode, out + "".join(process.trace)

    def test_two_stops_and_two_uninstalls_at_once(self):
        for command in ("stop", "uninstall"):
            self.assertEqual(self.svc("service", "start", "--name", self.NAME)[0], 0)
            first = self.traced("service", command, "--name", self.NAME)
            # Its stop control answered: the service reports stopping.
            self.wait_for_calls(first, "ControlService", "QueryServiceStatus")
            second = self.traced("service", command, "--name", self.NAME)
            self.wait_for_calls(second, "ControlService")
            self.assertIsNone(first.poll(), "the first returned while the service was still stopping")
            self.assertIsNone(second.poll(), "the second returned while the service was still stopping")
            write(self.release, "")
            results = [self.finish(first), self.finish(second)]
            os.remove(self.release)
            if command == "stop":
                # Neither fails, and both return once the service's process has ended.
                self.assertEqual([rc for rc, _ in results], [0, 0], results)
                self.assertTrue(all(f"service '{self.NAME}' stopped" in out for _, out in results), results)
            else:
                # One removes it; the other finds it marked for deletion.
                self.assertEqual(sorted(rc for rc, _ in results), [0, 1], results)
                self.assertTrue(any(f"service '{self.NAME}' removed" in out for _, out in results), results)
            self.assertEqual(self.services_running(), [], command)
        rc, out = self.svc("service", "status", "--name", self.NAME)
        self.assertEqual(rc, 1, out)

    def test_a_stop_while_starting_waits_for_the_start(self):
        """A service still starting accepts no stop: the command waits for the
        start to end and then stops it, as an upgrade's stop at boot needs."""
        name, started = "WD64PySlowStart", os.path.join(folder("service-slow-start"), "started")
        command = f'"{win(os.path.join(BIN, "test_service.exe"))}" {name} slow-start {win(started)}'
        self.svc("service", "uninstall", "--name", name)  # one an interrupted run left
        self.assertEqual(subprocess.run([WINE_RUN, SERVICE_PREFIX, "sc", "create", name, "binpath=", command],
                                        stdout=subprocess.PIPE, stderr=self.log, timeout=180).returncode, 0)
        try:
            self.assertEqual(subprocess.run([WINE_RUN, SERVICE_PREFIX, "sc", "start", name], stdout=subprocess.PIPE,
                                            stderr=self.log, timeout=180).returncode, 0)
            stop = self.traced("service", "stop", "--name", name)
            # It keeps asking while the service starts.
            self.wait_for_calls(stop, "QueryServiceStatus", "QueryServiceStatus", "QueryServiceStatus")
            self.assertIsNone(stop.poll(), "the stop gave up on a starting service")
            write(started, "")
            rc, out = self.finish(stop)
            self.assertEqual(rc, 0, out)
            self.assertIn(f"service '{name}' stopped", out)
        finally:
            write(started, "")
            self.svc("service", "uninstall", "--name", name)


if __name__ == "__main__":
    # One idle program keeps the prefix's Wine server up between the many
    # short runs; without it every run starts the server and its services anew.
    # The Wine server inherits the output pipes of the program that starts
    # it, and the keeper keeps it up: were it started by a run whose output
    # is read, that read would never end. So the first programs write to
    # nothing: the keeper and one run that waits for the prefix to come up.
    keeper = subprocess.Popen([WINE_RUN, PREFIX, os.path.join(BIN, "test_helper.exe"), "sleep", "3600000"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              env=dict(os.environ, WINEDEBUG="-all"), start_new_session=True)
    try:
        subprocess.run([WINE_RUN, PREFIX, HOST, "--version"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                       env=dict(os.environ, WINEDEBUG="-all"), timeout=600)
        unittest.main(argv=[sys.argv[0], "-v"] + sys.argv[5:])
    finally:
        os.killpg(keeper.pid, signal.SIGKILL)
        keeper.wait()
