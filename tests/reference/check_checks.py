#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where a fault, planted into a copy of the headers or of the help, is not found by the checks
beside.

Usage: check_checks.py DOXYGEN DOXYFILE HEADERS_FOLDER HELP_FILE XML_FOLDER VERSION
"""

import re
import shutil
import sqlite3
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent

# A header, what is replaced in it by what, and what must be missed then.
FAULTS = [
    ("updatecontroller.h", r"(\bUpdated,) *///<[^\n]*", r"\1",
     {"value Pellox::UpdateController::UpdateResult::Updated"}),
    ("filecopier.h", r"(enum CopyError \{\s*\w+,?) *///<[^\n]*", r"\1",
     {"value Pellox::FileCopier::NoError"}),
    ("pellox.h", r"/\*\*[^*]*\*/(\s*PELLOX_NOT_INTACT)", r"\1", {"value PELLOX_NOT_INTACT"}),
    ("pellox.h", r"(enum \{)(\s*/\*\* Done)", r"\1 PELLOX_MORE = 99,\2", {"value PELLOX_MORE"}),
    ("pellox.h", r"(typedef struct pellox_job [^\n]*\n)", r"\1#define PELLOX_LIMIT 10\n",
     {"define PELLOX_LIMIT"}),
    # This is none.
    ("updatecontroller.h", r"(\bUpdated,) *///< *", r"\1 ///< In other words: ", set()),
]


def missed_in(headers, doxygen, doxyfile, scratch):
    settings = (f'@INCLUDE = "{doxyfile}"\nINPUT = "{headers}"\nOUTPUT_DIRECTORY = "{scratch}"\n'
                "GENERATE_HTML = NO\nGENERATE_QHP = NO\nWARNINGS = NO\nWARN_AS_ERROR = NO\n")
    subprocess.run([doxygen, "-"], input=settings, text=True, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    result = subprocess.run([sys.executable, HERE / "check_comments.py", scratch / "xml"],
                            stdout=subprocess.PIPE, text=True, check=False)
    prefix = "without a comment: "
    missed = {line.removeprefix(prefix)
              for line in result.stdout.splitlines() if line.startswith(prefix)}
    if result.returncode != (1 if missed else 0):
        sys.exit(f"check_comments.py ends with {result.returncode}")
    # Namespaces have their comments in the page beside the headers.
    return {name for name in missed if not name.startswith("namespace ")}


def check_comments(doxygen, doxyfile, headers_folder):
    for header, pattern, replacement, expected in FAULTS:
        with tempfile.TemporaryDirectory() as folder:
            headers = Path(folder) / "Pellox"
            shutil.copytree(headers_folder, headers)
            text, count = re.subn(pattern, replacement, (headers / header).read_text(), count=1)
            if not count:
                sys.exit(f"{header} has no {pattern}")
            (headers / header).write_text(text)
            missed = missed_in(headers, doxygen, doxyfile, Path(folder))
        if missed != expected:
            yield f"{header}, {pattern}: missed {sorted(missed)}, not {sorted(expected)}"


def shorten(file):
    file.write_bytes(file.read_bytes()[:5000])


def change(statement):
    def change_file(file):
        database = sqlite3.connect(file)
        with database:
            database.execute(statement)
        database.close()
    return change_file


HELP_FAULTS = {
    "no file": Path.unlink,
    "half a file": shorten,
    "another version": change("UPDATE NamespaceTable SET Name = 'org.pellox.0.9.0'"),
    "no index of a class": change("DELETE FROM IndexTable WHERE Name = 'Pellox::UpdateController'"),
    "no pages": change("DELETE FROM FileDataTable"),
    "other pages": change("UPDATE IndexTable SET FileId = 2"),
}


def check_help(help_file, *arguments):
    command = [sys.executable, HERE / "check_help.py"]
    for fault, plant in HELP_FAULTS.items():
        with tempfile.TemporaryDirectory() as folder:
            copy = Path(folder) / "copy.qch"
            shutil.copy(help_file, copy)
            plant(copy)
            result = subprocess.run([*command, copy, *arguments], stdout=subprocess.DEVNULL,
                                    stderr=subprocess.PIPE, text=True, check=False)
        if result.returncode != 1 or "Traceback" in result.stderr:
            yield f"the help has {fault}: status {result.returncode}\n{result.stderr}"


def main():
    doxygen, doxyfile, headers, help_file, xml_folder, version = sys.argv[1:]
    problems = [*check_comments(doxygen, doxyfile, headers),
                *check_help(help_file, xml_folder, version)]
    print("\n".join(problems))
    print(f"{len(FAULTS) + len(HELP_FAULTS)} faults planted, {len(problems)} not found")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
