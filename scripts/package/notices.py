#!/usr/bin/env python3
"""Writes THIRD-PARTY-NOTICES.txt from the Debian copyright files of the
third-party code compiled into the binaries.

Usage: notices.py MINIZIP_SOURCE_DIR OUTPUT

Only the paragraphs that cover shipped code are kept (the files of the
library itself, not its tests, tools, contributions or packaging), followed by
the full text of every licence they name. A missing copyright file is an
error: a package without its notices must not be built.
"""
import re
import subprocess
import sys
from pathlib import Path

# (name in the notices, Debian package, what it is used for)
LIBRARIES = [
    ("zlib", "libz-mingw-w64-dev", "compression in the log packer (statically linked)"),
    ("minizip", None, "zip archive writer of the log packer (compiled in)"),
    ("nlohmann-json", "nlohmann-json3-dev", "configuration reader of wd64host.exe (header-only)"),
    ("CLI11", "libcli11-dev", "command-line parser of wd64host.exe (header-only)"),
]

# Paths of a source package that never reach the binaries.
NOT_SHIPPED = re.compile(r"^(debian|contrib|tests?|tools|cmake|examples?|doc|docs|benchmarks?)/")


def paragraphs(text):
    """Splits a machine-readable copyright file into field dictionaries."""
    result = []
    for block in re.split(r"\n\s*\n", text):
        fields, key = {}, None
        for line in block.splitlines():
            if line.startswith((" ", "\t")) and key:
                fields[key] += "\n" + line
            elif ":" in line:
                key, value = line.split(":", 1)
                key = key.strip()
                fields[key] = value.strip()
        if fields:
            result.append(fields)
    return result


def unfold(value):
    """A multi-line field as plain text: ' .' lines are blank lines."""
    lines = []
    for line in value.splitlines():
        line = line[1:] if line.startswith(" ") else line
        lines.append("" if line.strip() == "." else line.rstrip())
    return "\n".join(lines).strip("\n")


def section(title, version, use, copyright_text):
    paras = paragraphs(copyright_text)
    kept, licences = [], []
    for p in paras:
        if "Files" not in p:
            continue
        files = [f for f in p["Files"].split() if not NOT_SHIPPED.match(f)]
        if not files:
            continue
        kept.append(p)
        name = p.get("License", "").splitlines()[0].strip()
        if name and name not in licences:
            licences.append(name)
    if not kept:
        raise SystemExit(f"notices: no shipped files in the copyright of {title}")

    out = [f"{title} {version}".strip(), "=" * len(f"{title} {version}".strip()), f"Used for: {use}.", ""]
    for p in kept:
        out.append("Files: " + " ".join(f for f in p["Files"].split() if not NOT_SHIPPED.match(f)))
        holders = [line.strip() for line in p.get("Copyright", "").splitlines() if line.strip()]
        out.append("Copyright: " + "\n           ".join(holders or ["(not given)"]))
        out.append("License: " + p["License"].splitlines()[0].strip())
        out.append("")
    for name in licences:
        text = None
        for p in paras:
            licence = p.get("License", "")
            head, _, body = licence.partition("\n")
            if head.strip() == name and body.strip():
                text = unfold(body)
                if "Files" not in p:
                    break
        if text is None:
            raise SystemExit(f"notices: licence text {name!r} of {title} not found")
        out += [f"License {name}:", "", text, ""]
    return "\n".join(out)


def package_version(package):
    return subprocess.run(["dpkg-query", "-W", "-f=${Version}", package], check=True,
                          capture_output=True, text=True).stdout.strip()


def main():
    if len(sys.argv) != 3:
        raise SystemExit(__doc__)
    minizip = Path(sys.argv[1])
    output = Path(sys.argv[2])
    sections = []
    for title, package, use in LIBRARIES:
        if package is None:
            copyright_file = minizip / "debian" / "copyright"
            changelog = (minizip / "debian" / "changelog").read_text(encoding="utf-8").splitlines()[0]
            version = re.search(r"\(([^)]*)\)", changelog).group(1)
        else:
            copyright_file = Path("/usr/share/doc") / package / "copyright"
            version = package_version(package)
        sections.append(section(title, version, use, copyright_file.read_text(encoding="utf-8")))

    header = ("WatchDog64 third-party notices\n"
              "==============================\n\n"
              "WatchDog64 contains the following third-party code. Each part is\n"
              "listed with its copyright holders and the full text of its licence.\n"
              "Versions are those of the Debian packages the release was built from.\n\n")
    text = header + "\n\n".join(sections) + "\n"
    # Windows line ends: the file is read with Notepad on the servers.
    output.write_bytes(text.replace("\n", "\r\n").encode("utf-8"))


if __name__ == "__main__":
    main()
