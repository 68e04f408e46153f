#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails when an installed header or guide points to a document that is not installed.

Usage: check_documents.py HEADERS_FOLDER DOCUMENTS_FOLDER [DOCUMENT]...

DOCUMENT is one that must be there in any case, such as LICENSE.
"""

import re
import sys
from pathlib import Path
from urllib.parse import unquote

POINTER = re.compile(r"\bdocs/[\w./-]*\w")
LINK = re.compile(r"\]\(([^)\s]+)\)|\bsrc=\"([^\"]+)\"")
ELSEWHERE = re.compile(r"[a-z]+:|#")
# What only whoever has the source can read.
OF_THE_SOURCE = re.compile(r"(benchmarks|fuzz)(/|$)|CONTRIBUTING\.md$")


def without_code(text):
    return re.sub(r"^```.*?^```$|`[^`\n]*`", "", text, flags=re.MULTILINE | re.DOTALL)


def pointers_of_headers(folder):
    for header in sorted(folder.glob("*.h")):
        for pointer in POINTER.findall(header.read_text()):
            yield header.name, Path(pointer)


def links_of_guides(documents):
    for page in sorted(documents.rglob("*.md")):
        for match in LINK.finditer(without_code(page.read_text())):
            link = match.group(1) or match.group(2)
            if not ELSEWHERE.match(link):
                target = (page.parent / unquote(link.partition("#")[0])).resolve()
                yield page.name, target.relative_to(documents)


def main():
    headers, documents = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
    pointers = list(pointers_of_headers(headers))
    links = list(links_of_guides(documents))
    wanted = pointers + [(page, target) for page, target in links
                         if not OF_THE_SOURCE.match(str(target))]
    wanted += [("the licence or the policy", Path(name)) for name in sys.argv[3:]]
    missing = [(who, what) for who, what in wanted if not (documents / what).exists()]
    for who, what in missing:
        print(f"{who} points to {what}, which is not in {documents}")
    print(f"{len(pointers)} pointers in headers, {len(links)} links, {len(missing)} lead nowhere")
    return 1 if missing or not pointers or not links else 0


if __name__ == "__main__":
    sys.exit(main())
