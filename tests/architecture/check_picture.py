#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where docs/layers.dot does not show the folders of src and what they include.

Every folder is in the picture, and nothing else of src. Where a folder includes another one, the
arrows lead there, directly or by way of others; and every arrow stands for an include.

Usage: check_picture.py SOURCE_FOLDER
"""

import re
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # beside the sources
from check_layers import Library, includes_of, sources_in  # noqa: E402

NODE = re.compile(r'^\s*"([^"]+)"\s+\[label', re.MULTILINE)
ARROW = re.compile(r'^\s*"([^"]+)" -> "([^"]+)"(?: \[(.*)\])?$', re.MULTILINE)
OUTSIDE = {"tools/pellox", "examples"}


def includes_between_folders(src):
    """All folders, and pairs of them of which the first includes something of the second."""
    library = Library(src)
    pairs = set()
    for path in sources_in(src):
        for _, name in includes_of(path):
            file = library.file_of(name)
            if file:
                pairs.add((library.folder_of(path), library.folder_of(file)))
    between = {(a, b) for a, b in pairs if a != b and "." not in (a, b)}
    return {library.folder_of(path) for path in sources_in(src)} - {"."}, between


def reachable(arrows, start):
    found, left = set(), [start]
    while left:
        here = left.pop()
        for a, b in arrows:
            if a == here and b not in found:
                found.add(b)
                left.append(b)
    return found


def problems(root):
    folders, includes = includes_between_folders(root / "src")
    text = (root / "docs" / "layers.dot").read_text()
    nodes = set(NODE.findall(text))
    arrows = set()
    for a, b, attributes in ARROW.findall(text):
        arrows |= {(a, b), (b, a)} if "dir=both" in attributes else {(a, b)}
    for folder in sorted(folders - nodes):
        yield f"{folder} is not in the picture"
    for node in sorted(nodes - folders - OUTSIDE):
        yield f"{node} is in the picture, but no folder of src"
    for node in sorted(OUTSIDE):
        if not (root / node).is_dir():
            yield f"{node} is in the picture, but no folder"
    for a, b in sorted(includes):
        if b not in reachable(arrows, a):
            yield f"{a} includes {b}, but no arrow leads there"
    for a, b in sorted(arrows):
        if a not in OUTSIDE and (a, b) not in includes:
            yield f"an arrow leads from {a} to {b}, but no include"


def main():
    found = list(problems(Path(sys.argv[1])))
    print("\n".join(found) or "docs/layers.dot shows the folders of src")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
