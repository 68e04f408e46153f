#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails when the Qt help file is missing, or does not have the page of every class.

Usage: check_help.py HELP_FILE XML_FOLDER VERSION

XML_FOLDER is what Doxygen has written in the same run. A help file is an SQLite database, with pages
as qCompress() makes them.
"""

import sqlite3
import sys
import xml.etree.ElementTree as ElementTree
import zlib
from pathlib import Path


def classes_in(folder):
    index = ElementTree.parse(folder / "index.xml")
    return sorted(entry.findtext("name") for entry in index.iter("compound")
                  if entry.get("kind") in {"class", "struct"})


def problem_of_page(database, name):
    """Of the page that the help's index has for a class."""
    page = database.execute(
        "SELECT FileDataTable.Data FROM IndexTable JOIN FileDataTable"
        " ON IndexTable.FileId = FileDataTable.Id WHERE IndexTable.Name = ?", (name,)).fetchone()
    if page is None:
        return "is not in the index"
    text = zlib.decompress(page[0][4:]).decode()  # the size in front
    return None if name in text else "is not on its page"


def main():
    file, folder, version = Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3]
    if not file.is_file():
        sys.exit(f"{file} was not made: is there a qhelpgenerator? scripts/setup.sh docs installs it")
    classes = classes_in(folder)
    try:
        with sqlite3.connect(f"{file.absolute().as_uri()}?mode=ro", uri=True) as database:
            names = {name for name, in database.execute("SELECT Name FROM NamespaceTable")}
            problems = {name: problem_of_page(database, name) for name in classes}
    except (sqlite3.Error, zlib.error) as error:
        sys.exit(f"{file} cannot be read: {error}")
    if names != {f"org.pellox.{version}"}:
        sys.exit(f"{file} is for {names}, not for version {version}")
    found = {name: problem for name, problem in problems.items() if problem}
    for name, problem in found.items():
        print(f"{name} {problem}")
    print(f"{len(classes)} classes, {len(found)} without a page")
    return 1 if found or not classes else 0


if __name__ == "__main__":
    sys.exit(main())
