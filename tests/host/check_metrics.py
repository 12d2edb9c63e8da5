#!/usr/bin/python3
"""Checks the metrics files the host tests wrote, with the Prometheus client's
own text parser: the bytes (UTF-8 without BOM, LF endings, a final line feed),
HELP and TYPE for every family, no repeated series, and each value the test
expected in FILE.prom.json beside FILE.prom.

Usage: check_metrics.py ARTIFACTS_FOLDER
"""

import json
import pathlib
import sys

from prometheus_client.parser import text_string_to_metric_families

FAMILIES = {
    "wd64_free_bytes": "gauge",
    "wd64_path_readable": "gauge",
    "wd64_bound_bytes": "gauge",
    "wd64_group_level": "gauge",
    "wd64_group_services_stopped": "gauge",
    "wd64_group_recoveries_total": "counter",
    "wd64_service_up": "gauge",
    "wd64_service_exists": "gauge",
    "wd64_logpacker_runs_total": "counter",
    "wd64_logpacker_failures_total": "counter",
    "wd64_logpacker_files_packed_total": "counter",
    "wd64_logpacker_bytes_packed_total": "counter",
    "wd64_logpacker_files_skipped_total": "counter",
    "wd64_logpacker_archives": "gauge",
    "wd64_logpacker_archive_bytes": "gauge",
    "wd64_logpacker_archives_deleted_total": "counter",
    "wd64_logpacker_last_run_timestamp_seconds": "gauge",
    "wd64_logpacker_last_run_success": "gauge",
    "wd64_host_start_time_seconds": "gauge",
    "wd64_build_info": "gauge",
}


def check_file(prom: pathlib.Path, expected: dict) -> list:
    problems = []
    raw = prom.read_bytes()
    if raw.startswith(b"\xef\xbb\xbf"):
        problems.append("starts with a byte order mark")
    if b"\r" in raw:
        problems.append("holds a carriage return")
    if not raw.endswith(b"\n"):
        problems.append("does not end in a line feed")
    try:
        text = raw.decode("utf-8")
    except UnicodeDecodeError as error:
        return problems + [f"not UTF-8: {error}"]

    help_lines = {}
    type_lines = {}
    for line in text.split("\n"):
        parts = line.split(" ", 3)
        if line.startswith("# HELP ") and len(parts) == 4:
            help_lines[parts[2]] = parts[3]
        elif line.startswith("# TYPE ") and len(parts) == 4:
            type_lines[parts[2]] = parts[3]
    for name, kind in FAMILIES.items():
        if not help_lines.get(name):
            problems.append(f"{name}: no HELP line")
        if type_lines.get(name) != kind:
            problems.append(f"{name}: TYPE is {type_lines.get(name)!r}, expected {kind}")
    for name in set(help_lines) | set(type_lines):
        if name not in FAMILIES:
            problems.append(f"unexpected family {name}")

    # The client's parser lets an unknown escape such as "\w" through, so a
    # path whose backslashes were not doubled would pass it: check by hand.
    for number, line in enumerate(text.split("\n"), 1):
        if line.startswith("#") or "{" not in line:
            continue
        quoted = False
        i = line.index("{")
        while i < len(line) and not (line[i] == "}" and not quoted):
            if line[i] == '"':
                quoted = not quoted
            elif line[i] == "\\" and quoted:
                if i + 1 >= len(line) or line[i + 1] not in '\\"n':
                    problems.append(f"line {number}: bad escape {line[i:i + 2]!r} in {line}")
                i += 1
            i += 1

    samples = {}
    try:
        for family in text_string_to_metric_families(text):
            for sample in family.samples:
                key = (sample.name, frozenset(sample.labels.items()))
                if key in samples:
                    problems.append(f"series repeated: {sample.name}{dict(sample.labels)}")
                samples[key] = sample.value
    except Exception as error:  # the parser's own complaint is the finding
        return problems + [f"parser refused the file: {error}"]

    for want in expected["samples"]:
        key = (want["name"], frozenset(want["labels"].items()))
        where = f"{want['name']}{want['labels']}"
        if want.get("absent"):
            if key in samples:
                problems.append(f"{where}: present ({samples[key]}), expected no sample")
            continue
        if key not in samples:
            near = [dict(labels) for name, labels in samples if name == want["name"]]
            problems.append(f"{where}: missing; that family has {near}")
            continue
        value = samples[key]
        if "value" in want and value != want["value"]:
            problems.append(f"{where}: {value}, expected {want['value']}")
        if "min" in want and not want["min"] <= value <= want["max"]:
            problems.append(f"{where}: {value}, expected between {want['min']} and {want['max']}")
    return problems


def main() -> int:
    folder = pathlib.Path(sys.argv[1])
    expectations = sorted(folder.glob("*.prom.json"))
    if not expectations:
        print(f"no metrics files to check in {folder}")
        return 1
    failed = 0
    for path in expectations:
        expected = json.loads(path.read_text(encoding="utf-8"))
        prom = folder / expected["file"]
        problems = check_file(prom, expected) if prom.exists() else ["the file was not written"]
        print(f"{prom.name}: {len(expected['samples'])} expectations, {'ok' if not problems else 'FAILED'}")
        for problem in problems:
            print(f"  {problem}")
        failed += bool(problems)
    leftovers = [p.name for p in folder.iterdir() if p.suffix == ".tmp"]
    if leftovers:
        print(f"temporaries left behind: {leftovers}")
        failed += 1
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
