#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where a file includes what stands above it, see docs/architecture.md.

Usage: check_layers.py SOURCE_FOLDER
"""

import re
import sys
from pathlib import Path

FILES, DELTAS, RELEASE = "workflow/files", "workflow/deltas", "workflow/release"
CORE = {"foundation", "util", "publishing", "client", "archive"}

# What each folder of src may include, beside itself.
MAY_INCLUDE = {
    "foundation": set(),
    "util": {"foundation"},
    "publishing": {"foundation", "util", "client"},
    "client": {"foundation", "util", "publishing"},
    "archive": {"foundation"},
    FILES: CORE,
    DELTAS: CORE | {FILES},
    RELEASE: CORE | {FILES, DELTAS},
    "workflow/publish": CORE | {FILES, DELTAS, RELEASE},
    "workflow/update": CORE | {FILES, DELTAS, RELEASE},
    "capi": CORE | {FILES, DELTAS, RELEASE, "workflow/publish", "workflow/update"},
    ".": CORE | {FILES, DELTAS, RELEASE, "workflow/publish", "workflow/update"},
}
GENERATED = {"pellox_export.h"}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
SUFFIXES = {".h", ".c", ".cpp"}


def sources_in(folder):
    return sorted(path for path in folder.rglob("*") if path.suffix in SUFFIXES)


def problems_of_library(src):
    folder_of = {}
    for path in sources_in(src):
        if path.name in folder_of:
            yield f"{path}: another file has the same name"
        folder_of[path.name] = path.parent.relative_to(src).as_posix()
    for path in sources_in(src):
        folder = folder_of[path.name]
        if folder not in MAY_INCLUDE:
            yield f"{path}: the folder is not known to this test"
            continue
        for name in INCLUDE.findall(path.read_text()):
            if name in GENERATED or name == f"{path.stem}.moc":
                continue
            if name not in folder_of:
                yield f"{path}: includes {name}, which is not of the library"
            elif folder_of[name] != folder and folder_of[name] not in MAY_INCLUDE[folder]:
                yield f"{path}: includes {name} of {folder_of[name]}"


def problems_of_program(folder, library_headers):
    """The programs know installed headers, which they include by <Pellox/...>."""
    own = {path.name for path in sources_in(folder)}
    for path in sources_in(folder):
        for name in INCLUDE.findall(path.read_text()):
            if Path(name).name in library_headers and Path(name).name not in own:
                yield f"{path}: includes {name} of the library's own"


def main():
    root = Path(sys.argv[1])
    src = root / "src"
    headers = {path.name for path in sources_in(src)}
    problems = list(problems_of_library(src))
    for program in ("tools", "examples"):
        problems += problems_of_program(root / program, headers)
    print("\n".join(problems) or f"{len(sources_in(src))} files, all on their floors")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
