#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails when something public in the reference has no comment, by the XML that Doxygen writes.

Usage: check_comments.py XML_FOLDER

Doxygen itself finds most of that, but no values of enumerations and no macros.
"""

import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

KINDS = {"class", "struct", "union", "namespace"}


def is_told(element):
    texts = (element.find(name) for name in ("briefdescription", "detaileddescription"))
    return any("".join(text.itertext()).strip() for text in texts if text is not None)


def needs_no_words(member, owner):
    name = member.findtext("name")
    return (member.get("prot") not in {"public", "protected"} or member.get("kind") == "friend"
            or name.lstrip("~") == owner.split("::")[-1])  # makes or ends an object


def untold_in(compound):
    """Yields (kind, name) of what has no comment; and (None, name) of each that was looked at."""
    owner = compound.findtext("compoundname")
    if compound.get("kind") in KINDS:
        yield None if is_told(compound) else compound.get("kind"), owner
    prefix = f"{owner}::" if compound.get("kind") in KINDS else ""
    for member in compound.iter("memberdef"):
        if needs_no_words(member, owner):
            continue
        name = member.findtext("name")
        yield None if is_told(member) else member.get("kind"), prefix + name
        # The values of an enumeration that is a class are members of it, others are its neighbours'.
        inside = f"{prefix}{name}::" if member.get("strong") == "yes" else prefix
        for value in member.iter("enumvalue"):
            yield None if is_told(value) else "value", inside + value.findtext("name")


def main():
    folder = Path(sys.argv[1])
    index = ElementTree.parse(folder / "index.xml")
    seen = set()
    for entry in index.iter("compound"):
        if entry.get("kind") in KINDS | {"file"}:
            compound = ElementTree.parse(folder / f"{entry.get('refid')}.xml").find("compounddef")
            seen.update(untold_in(compound))
    untold = sorted((name, kind) for kind, name in seen if kind)
    for name, kind in untold:
        print(f"without a comment: {kind} {name}")
    print(f"{len(seen)} public names, {len(untold)} without a comment")
    return 1 if untold or not seen else 0


if __name__ == "__main__":
    sys.exit(main())
