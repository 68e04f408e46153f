#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where docs/architecture.md does not tell what there is.

Every folder at the top and every folder of src has a row in its table of folders. The rows of src
and of scripts name every file there, a source once for header and implementation, and nothing else;
the row of tests names every folder there that src does not have. A floor that includes single
headers of another one names these. A page that shows a drawing links its source.

Usage: check_page.py SOURCE_FOLDER
"""

import re
import subprocess
import sys
from fnmatch import fnmatch
from functools import lru_cache
from pathlib import Path

sys.dont_write_bytecode = True  # beside the sources
from check_layers import MAY_INCLUDE, sources_in  # noqa: E402

ROW = re.compile(r"^\| (`[^|]*`) \|(.*)\|$", re.MULTILINE)
QUOTED = re.compile(r"`([^`]+)`")
SHOWN_THOUGH_HIDDEN = {".ci"}


def rows_under(page, heading):
    """What the table of a section tells of each name in its first column."""
    section = re.search(rf"^## {heading}\n(.*?)(?=^## |\Z)", page, re.MULTILINE | re.DOTALL)
    rows = ROW.findall(section.group(1)) if section else []
    return {name: text for first, text in rows for name in QUOTED.findall(first)}


@lru_cache
def tracked(root):
    """What git knows of below this folder, with its folders; None where git does not know it."""
    if not (root / ".git").exists():
        return None
    listing = ["git", "-C", root, "ls-files", "-z"]
    names = subprocess.run(listing, stdout=subprocess.PIPE, check=True, text=True).stdout
    files = {root / name for name in names.split("\0") if name}
    return files | {folder for file in files for folder in file.parents}


def entries(root, folder):
    """Of a folder, in order, without what editors and tools have left there."""
    known = tracked(root)
    return sorted(path for path in folder.iterdir() if known is None or path in known)


def folders_at_top(root):
    """Those of the repository: not what .gitignore names, nor what tools keep for themselves."""
    ignored = re.findall(r"^/(.+)/$", (root / ".gitignore").read_text(), re.MULTILINE)
    for folder in (path for path in entries(root, root) if path.is_dir()):
        is_hidden = folder.name.startswith(".") and folder.name not in SHOWN_THOUGH_HIDDEN
        if not is_hidden and not any(fnmatch(folder.name, pattern) for pattern in ignored):
            yield folder


def folders_without_row(folder, root, rows):
    """A folder that holds nothing but folders may leave the rows to them."""
    if folder.relative_to(root).as_posix() in rows:
        return
    inside = entries(root, folder)
    if not all(path.is_dir() for path in inside):
        yield folder
        return
    for inner in inside:
        yield from folders_without_row(inner, root, rows)


def names_that_differ(text, files):
    """Files that the text does not name, by their names or without the suffix or as the class that
    they declare, and names in it of which there is no file."""
    told = {name.lower() for name in QUOTED.findall(text)}
    for file in sorted(files):
        if told.isdisjoint({file.name.lower(), file.stem}):
            yield f"{file} is not named"
    there = {name for file in files for name in (file.name.lower(), file.stem)}
    for name in sorted(told - there):
        yield f"{name} is named, but no file"


def problems_of_folders(root, rows):
    for top in folders_at_top(root):
        if top.name == "src":
            continue
        for folder in folders_without_row(top, root, rows):
            yield f"{folder} has no row"
    for folder in sorted({path.parent for path in sources_in(root / "src")}):
        name = folder.relative_to(root).as_posix()
        if name not in rows:
            yield f"{folder} has no row"
            continue
        files = {path for path in entries(root, folder) if path.is_file()}
        yield from (f"{name}: {text}" for text in names_that_differ(rows[name], files))
    scripts = names_that_differ(rows.get("scripts", ""), entries(root, root / "scripts"))
    yield from (f"scripts: {text}" for text in scripts)
    own_tests = set(QUOTED.findall(rows.get("tests", "")))
    for folder in (path for path in entries(root, root / "tests") if path.is_dir()):
        if not (root / "src" / folder.name).is_dir() and f"tests/{folder.name}" not in own_tests:
            yield f"tests: {folder} is not named"


def problems_of_floors(rows):
    for floor, allowed in sorted(MAY_INCLUDE.items()):
        name = floor.split("/")[0]
        if name != "." and name not in rows:
            yield f"{name} is not in the table of floors"
            continue
        told = {quoted for quoted in QUOTED.findall(rows.get(name, "")) if quoted.endswith(".h")}
        held = {Path(entry).name for entry in allowed if entry.endswith(".h")}
        for header in sorted(told ^ held):
            yield f"{name}: the table of floors and check_layers.py differ in {header}"


def problems_of_drawings(docs):
    """A page that shows a drawing links what it is drawn from."""
    for page in sorted(docs.rglob("*.md")):
        text = page.read_text()
        for source in sorted(docs.rglob("*.dot")):
            drawing = source.relative_to(docs).with_suffix("").as_posix()
            if f"]({drawing}.svg)" in text and f"]({drawing}.dot)" not in text:
                yield f"{page} shows {drawing}.svg and does not link {drawing}.dot"


def problems(root):
    page = (root / "docs" / "architecture.md").read_text()
    yield from problems_of_folders(root, rows_under(page, "Folders"))
    yield from problems_of_floors(rows_under(page, "Layers"))
    yield from problems_of_drawings(root / "docs")


def main():
    found = list(problems(Path(sys.argv[1])))
    print("\n".join(found) or "docs/architecture.md tells of every folder")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
