#!/usr/bin/env python3
"""Reads back the packer tests' archives with readers that share no code with
the module (Python's zipfile, Info-ZIP's unzip). Each manifest.tsv line is
"<archive>\t<entry>\t<copy of the original, or * for an entry a failed run
left unfinished>", paths relative to the manifest's folder."""

import collections
import pathlib
import subprocess
import sys
import zipfile
import zlib


def problems_of(archive, expected):
    result = subprocess.run(["unzip", "-tqq", str(archive)], capture_output=True, text=True)
    if result.returncode != 0:
        yield f"unzip -t: {result.stdout}{result.stderr}"
    with zipfile.ZipFile(archive) as zf:
        infos = zf.infolist()
        if [info.filename for info in infos] != [entry for entry, _ in expected]:
            yield f"entries {[info.filename for info in infos]}, expected {[entry for entry, _ in expected]}"
        for info, (entry, copy) in zip(infos, expected):
            # Bare names, deflate, the DOS date the library makes of an
            # all-zero date (month 1, day 0 of 1980), no external attributes;
            # internal bit 0 is zlib's own text guess.
            shape = ("/" not in entry and "\\" not in entry, info.compress_type, info.date_time,
                     info.external_attr, info.internal_attr & ~1)
            if shape != (True, zipfile.ZIP_DEFLATED, (1980, 1, 0, 0, 0, 0), 0, 0):
                yield f"{entry}: name/method/date/attributes {shape}"
            if copy is not None:
                original = copy.read_bytes()
                if zf.read(info) != original or info.CRC != zlib.crc32(original):  # read() checks the CRC too
                    yield f"{entry}: contents or CRC differ from the original"


def main():
    manifests = sorted(pathlib.Path(sys.argv[1]).glob("*/manifest.tsv"))
    failed = 0
    for manifest in manifests:
        archives = collections.OrderedDict()
        for line in manifest.read_text(encoding="utf-8").splitlines():
            archive, entry, copy = line.split("\t")
            copy = None if copy == "*" else manifest.parent / copy.replace("\\", "/")
            archives.setdefault(manifest.parent / archive.replace("\\", "/"), []).append((entry, copy))
        for archive, expected in archives.items():
            problems = list(problems_of(archive, expected)) if archive.exists() else ["missing"]
            for problem in problems:
                print(f"FAIL {archive}: {problem}")
            failed += bool(problems)
    print(f"{sum(1 for m in manifests)} manifests, {failed} archives failed")
    return 1 if failed or not manifests else 0


if __name__ == "__main__":
    sys.exit(main())
