#!/usr/bin/env python3
"""Reads back the packer tests' archives with readers that share no code with
the module (Python's zipfile, Info-ZIP's unzip) and counts what was lost.

In each test folder (paths relative to it, "\\" separators):
  manifest.tsv   "<archive>\t<entry>\t<copy>": the archive holds exactly these
                 entries in this order; <copy> is the original's copy, or
                 "=SIZE:CRC" for an entry checked by size and CRC only.
  survivors.tsv  "<name>\t<copy>\t<once|any>": the original is whole in logs\\
                 or byte-identical in one of the folder's archives; "once"
                 also forbids a second place.
  lines.tsv      "<prefix>\t<count>[\tutf-16]": every line ending in "<prefix> N",
                 N < count, is in the archives or the files left in logs\\
                 exactly once (in UTF-16 files for "utf-16").
Every logs_*.zip of a folder must pass `unzip -t`; no temporary archive may be
left under a .zip name."""

import collections
import pathlib
import re
import subprocess
import sys
import zipfile
import zlib


def unzip_problems(archive):
    result = subprocess.run(["unzip", "-tqq", str(archive)], capture_output=True, text=True)
    if result.returncode != 0:
        yield f"unzip -t: {result.stdout}{result.stderr}"


def streamed(zf, info):
    """Size and CRC of an entry read in chunks (zipfile checks the CRC at the end)."""
    size, crc = 0, 0
    with zf.open(info) as stream:
        while chunk := stream.read(1 << 24):
            size += len(chunk)
            crc = zlib.crc32(chunk, crc)
    return size, crc


def manifest_problems(archive, expected):
    yield from unzip_problems(archive)
    with zipfile.ZipFile(archive) as zf:
        infos = zf.infolist()
        if [info.filename for info in infos] != [entry for entry, _ in expected]:
            yield f"entries {[info.filename for info in infos]}, expected {[entry for entry, _ in expected]}"
        for info, (entry, copy) in zip(infos, expected):
            # Bare names, deflate, the DOS date the library makes of an
            # all-zero date (month 1, day 0 of 1980), no external attributes;
            # internal bit 0 is zlib's own text guess. Names outside ASCII
            # carry the UTF-8 flag (zipfile decodes them right only then).
            shape = ("/" not in entry and "\\" not in entry, info.compress_type, info.date_time,
                     info.external_attr, info.internal_attr & ~1)
            if shape != (True, zipfile.ZIP_DEFLATED, (1980, 1, 0, 0, 0, 0), 0, 0):
                yield f"{entry}: name/method/date/attributes {shape}"
            if isinstance(copy, tuple):
                if streamed(zf, info) != copy or info.file_size != copy[0]:
                    yield f"{entry}: size/CRC {info.file_size}/{info.CRC:08x}, expected {copy[0]}/{copy[1]:08x}"
            else:
                original = copy.read_bytes()
                if zf.read(info) != original or info.CRC != zlib.crc32(original):  # read() checks the CRC too
                    yield f"{entry}: contents or CRC differ from the original"


def folder_contents(folder):
    """(name, bytes) of every entry of every logs_*.zip and of every other file in logs\\."""
    logs = folder / "logs"
    for archive in sorted(logs.glob("logs_*.zip")):
        with zipfile.ZipFile(archive) as zf:
            for info in zf.infolist():
                yield archive.name, info.filename, zf.read(info)
    for path in sorted(logs.iterdir()):
        if path.is_file() and not re.fullmatch(r"logs_.*\.zip", path.name):
            yield None, path.name, path.read_bytes()


def same_name(archive, entry, name):
    """An entry of that name, or a file left in logs\\ under it or moved aside ("~wd64pack.<16 hex>.<name>")."""
    return entry == name or (archive is None and entry.startswith("~wd64pack.") and entry[27:] == name)


def check_folder(folder):
    """Problems of one test folder that has survivors.tsv or lines.tsv, with a summary."""
    logs = folder / "logs"
    problems = []
    for archive in sorted(logs.glob("logs_*.zip")):
        problems += [f"{archive.name}: {p}" for p in unzip_problems(archive)]
    if problems:
        return problems, "unreadable archives"
    contents = list(folder_contents(folder))
    summary = []
    survivors = folder / "survivors.tsv"
    if survivors.exists():
        lost = duplicated = 0
        rows = [line.split("\t") for line in survivors.read_text(encoding="utf-8").splitlines()]
        for name, copy, mode in rows:
            original = (folder / copy.replace("\\", "/")).read_bytes()
            places = sum(1 for archive, entry, data in contents if data == original and same_name(archive, entry, name))
            if places == 0:
                lost += 1
                problems.append(f"{name}: lost")
            elif places > 1:
                duplicated += 1
                if mode == "once":
                    problems.append(f"{name}: in {places} places")
        summary.append(f"{len(rows)} files, {lost} lost, {duplicated} packed twice")
    lines = folder / "lines.tsv"
    if lines.exists():
        counts = {"": collections.Counter(), "utf-16": collections.Counter()}
        for _, _, data in contents:
            for encoding, text in (("", data), ("utf-16", data.decode("utf-16-le", "replace").encode())):
                counts[encoding].update(m.group(1) for m in re.finditer(rb"(?:^|\s)(\S+ \d+)\r?$", text, re.M))
        for row in lines.read_text(encoding="utf-8").splitlines():
            prefix, count, *encoding = row.split("\t")
            counts_of = counts[encoding[0] if encoding else ""]
            wanted = [f"{prefix} {n}".encode() for n in range(int(count))]
            lost = sum(1 for w in wanted if counts_of[w] == 0)
            twice = sum(1 for w in wanted if counts_of[w] > 1)
            summary.append(f"{prefix}: {count} lines, {lost} lost, {twice} duplicated")
            if lost or twice:
                problems.append(f"{prefix}: {lost} lines lost, {twice} duplicated")
    return problems, "; ".join(summary)


def main():
    root = pathlib.Path(sys.argv[1])
    manifests = sorted(root.glob("*/manifest.tsv"))
    failed = 0
    for manifest in manifests:
        archives = collections.OrderedDict()
        for line in manifest.read_text(encoding="utf-8").splitlines():
            archive, entry, copy = line.split("\t")
            if copy.startswith("="):
                size, crc = copy[1:].split(":")
                copy = (int(size), int(crc, 16))
            else:
                copy = manifest.parent / copy.replace("\\", "/")
            archives.setdefault(manifest.parent / archive.replace("\\", "/"), []).append((entry, copy))
        for archive, expected in archives.items():
            problems = list(manifest_problems(archive, expected)) if archive.exists() else ["missing"]
            for problem in problems:
                print(f"FAIL {archive}: {problem}")
            failed += bool(problems)
    folders = sorted({p.parent for p in root.glob("*/survivors.tsv")} | {p.parent for p in root.glob("*/lines.tsv")})
    for folder in folders:
        problems, summary = check_folder(folder)
        print(f"{folder.name}: {summary}")
        for problem in problems:
            print(f"FAIL {folder.name}: {problem}")
        failed += bool(problems)
    print(f"{len(manifests)} manifests, {len(folders)} counted folders, {failed} failed")
    return 1 if failed or not manifests else 0


if __name__ == "__main__":
    sys.exit(main())
