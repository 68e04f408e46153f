#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where a picture of the documentation is not what its .dot file draws.

Compared are the nodes, edges and frames with their texts. Where and how they stand is left to
Graphviz, of which another version may do it in another way.

Usage: check_drawings.py DOCS_FOLDER DOT_PROGRAM
"""

import subprocess
import sys
from collections import Counter
from pathlib import Path
from xml.etree import ElementTree

SVG = "{http://www.w3.org/2000/svg}"
DRAWN = {"node", "edge", "cluster"}


def things_in(svg):
    """How often each thing is drawn: its kind, its name and its text."""
    things = Counter()
    for group in ElementTree.fromstring(svg).iter(f"{SVG}g"):
        kind = group.get("class")
        if kind in DRAWN:
            texts = (text.text or "" for text in group.iter(f"{SVG}text"))
            text = " ".join(" ".join(texts).split())
            things[(kind, group.findtext(f"{SVG}title"), text)] += 1
    return things


def problems_of(source, dot):
    picture = source.with_suffix(".svg")
    if not picture.is_file():
        yield f"{picture} is missing"
        return
    drawn = subprocess.run([dot, "-Tsvg", source], stdout=subprocess.PIPE, check=True).stdout
    expected, found = things_in(drawn), things_in(picture.read_bytes())
    if not expected:
        yield f"{source} draws nothing"
    for kind, name, text in expected - found:
        yield f'{picture} lacks the {kind} {name} with "{text}"'
    for kind, name, text in found - expected:
        yield f'{picture} has the {kind} {name} with "{text}", which {source.name} does not draw'


def main():
    docs, dot = Path(sys.argv[1]), sys.argv[2]
    sources = sorted(docs.rglob("*.dot"))
    if not sources:
        sys.exit(f"no .dot file in {docs}")
    problems = [problem for source in sources for problem in problems_of(source, dot)]
    print("\n".join(problems) or f"{len(sources)} pictures are what their .dot files draw")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
