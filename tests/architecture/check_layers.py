#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where a file includes what stands above it, or asks for Qt's version, see
docs/architecture.md.

Usage: check_layers.py SOURCE_FOLDER
"""

import re
import sys
from pathlib import Path

FILES, DELTAS, RELEASE = "workflow/files", "workflow/deltas", "workflow/release"
CORE = {"foundation", "util", "publishing", "client", "archive"}

# What each folder of src may include, beside itself: all of a folder, or a single header of it.
MAY_INCLUDE = {
    ".": set(),
    "foundation": set(),
    "util": {"foundation/namedpipe.h"},
    "publishing": {"foundation", "util", "client"},
    "client": {"foundation", "util", "publishing"},
    "archive": {"foundation/loggedlist.h", "foundation/progresscallback.h"},
    FILES: CORE,
    DELTAS: CORE | {FILES},
    RELEASE: CORE | {FILES, DELTAS},
    "workflow/publish": CORE | {FILES, DELTAS, RELEASE},
    "workflow/update": CORE | {FILES, DELTAS, RELEASE},
    "capi": CORE | {FILES, DELTAS, RELEASE, "workflow/publish", "workflow/update"},
}
# Folders that know of the others what is installed, and no more.
BY_INSTALLED_HEADERS = {"capi"}
GENERATED = {"pellox_export.h"}
QT_VERSIONS = "qtversion.h"  # of cmake/qt: what is not the same with each Qt
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]', re.MULTILINE)
SUFFIXES = {".h", ".c", ".cpp"}


def sources_in(folder):
    return sorted(path for path in folder.rglob("*") if path.suffix in SUFFIXES)


def problems_of_qt(folder):
    """All that is not the same with each Qt stands in one header."""
    for path in sources_in(folder):
        if "QT_VERSION" in path.read_text():
            yield f"{path}: asks for Qt's version, which is for {QT_VERSIONS}"


def includes_of(path):
    """Pairs of what opens the name, a quote or a bracket, and the name."""
    return INCLUDE.findall(path.read_text())


class Library:
    """The files of src, and the spellings by which a compiler finds them."""

    def __init__(self, src):
        self.src = src
        self.files = {path.name: path for path in sources_in(src)}
        # The build makes these of its list of public headers: "folder/name.h:ClassName".
        text = (src / "CMakeLists.txt").read_text()
        listed = re.search(r"^set\(public_headers\s([^)]*)\)", text, re.MULTILINE).group(1).split()
        self.headers_of_classes = {}
        for entry in listed:
            header, *classes = entry.split(":")
            self.headers_of_classes.update({name: Path(header).name for name in classes})
        self.installed = {Path(entry.split(":")[0]).name for entry in listed}
        self.installed |= set(self.headers_of_classes) | GENERATED

    def folder_of(self, path):
        return path.parent.relative_to(self.src).as_posix()

    def may_include(self, folder, file):
        """Whether a file of the folder may include this one."""
        other = self.folder_of(file)
        if other == folder:
            return True
        if folder in BY_INSTALLED_HEADERS and file.name not in self.installed:
            return False
        return not MAY_INCLUDE[folder].isdisjoint({other, f"{other}/{file.name}"})

    def file_of(self, include):
        """What is meant by "name.h", "folder/name.h", <Pellox/name.h> or <Pellox/ClassName>, or
        None when it is none of the library's."""
        *folders, name = (part for part in include.split("/") if part not in (".", ".."))
        file = self.files.get(self.headers_of_classes.get(name, name))
        if not file or folders == ["Pellox"]:
            return file
        parents = file.relative_to(self.src).parts[:-1]
        return file if list(parents[len(parents) - len(folders) :]) == folders else None


def problems_of_library(src):
    library = Library(src)
    for path in sources_in(src):
        if path != library.files[path.name]:
            yield f"{path}: another file has the same name"
        folder = library.folder_of(path)
        if folder not in MAY_INCLUDE:
            yield f"{path}: the folder is not known to this test"
            continue
        for opening, name in includes_of(path):
            if name in GENERATED | {QT_VERSIONS, f"{path.stem}.moc"}:
                continue
            file = library.file_of(name)
            if not file:
                if opening == '"' or name.startswith("Pellox/"):
                    yield f"{path}: includes {name}, which is not of the library"
            elif not library.may_include(folder, file):
                yield f"{path}: includes {name} of {library.folder_of(file)}"


def problems_of_program(folder, library):
    """The programs know installed headers, which they include by <Pellox/...>."""
    own = {path.name for path in sources_in(folder)}
    for path in sources_in(folder):
        for opening, name in includes_of(path):
            if opening == "<" and name.startswith("Pellox/"):
                is_allowed = name[len("Pellox/") :] in library.installed
            else:
                is_allowed = Path(name).name in own or not library.file_of(name)
            if not is_allowed:
                yield f"{path}: includes {name} of the library's own"


def problems(root):
    yield from problems_of_library(root / "src")
    library = Library(root / "src")
    for program in ("tools", "examples"):
        yield from problems_of_program(root / program, library)
    for folder in ("src", "tools"):
        yield from problems_of_qt(root / folder)


def main():
    root = Path(sys.argv[1])
    found = list(problems(root))
    print("\n".join(found) or f"{len(sources_in(root / 'src'))} files, all on their floors")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
