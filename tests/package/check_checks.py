#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where a declaration, taken out of a copy of the headers, is not missed by check_declared.py.

Usage: check_checks.py LIBRARY INCLUDE_FOLDER COMPILER [FLAG]...
"""

import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

CHECK = Path(__file__).resolve().parent / "check_declared.py"

# A header, what is replaced in it by what, and the names that are not declared any more.
FAULTS = [
    ("updatecontroller.h", r"bool isRunning\(\) const;", "",
     {"Pellox::UpdateController::isRunning"}),
    # The same name elsewhere does not count.
    ("updatecontroller.h", r"bool isRunning\(\) const;", "// bool isRunning() const;",
     {"Pellox::UpdateController::isRunning"}),
    ("integritycontroller.h", r"Q_OBJECT", "",
     {f"Pellox::IntegrityController::{name}"
      for name in ("metaObject", "qt_metacall", "qt_metacast", "staticMetaObject")}),
    ("pellox.h", r"\bpellox_plan\(", "pellox_planned(", {"pellox_plan"}),
    ("outputparsers.h", r"\bstrip\(", "stripped(", {"strip"}),
    ("rulesexecutorfunctor.h", r"operator\(\)\(", "run(", {"RulesExecutorFunctor::operator()"}),
    ("patchhelp.h", r"namespace Pellox", "namespace Others",
     {f"Pellox::{name}" for name in ("applyPatch", "createDelta", "createSignature", "onCallBac",
                                     "setRsyncLogLevel", "setRsyncLogOutput")}),
    # This is none.
    ("updatecontroller.h", r"bool isRunning\(\) const;",
     "bool isRunning() /* or not */\n const; void more(int = {1});", set()),
]
COMPLAINT = "exported, but no installed header declares it: "


def names_missed(library, folder, compiler):
    result = subprocess.run([sys.executable, CHECK, library, folder, *compiler],
                            stdout=subprocess.PIPE, text=True, check=False)
    names = {line.removeprefix(COMPLAINT)
             for line in result.stdout.splitlines() if line.startswith(COMPLAINT)}
    if result.returncode != (1 if names else 0):
        sys.exit(f"check_declared.py ends with {result.returncode}")
    return names


def main():
    library, include_folder, *compiler = sys.argv[1:]
    failures = 0
    for header, pattern, replacement, expected in FAULTS:
        with tempfile.TemporaryDirectory() as copy:
            shutil.copytree(Path(include_folder) / "Pellox", Path(copy) / "Pellox")
            file = Path(copy) / "Pellox" / header
            text, count = re.subn(pattern, replacement, file.read_text())
            if not count:
                sys.exit(f"{header} has no {pattern}")
            file.write_text(text)
            missed = names_missed(library, copy, compiler)
        if missed != expected:
            failures += 1
            print(f"{header}, {pattern}: missed {sorted(missed)}, not {sorted(expected)}")
    print(f"{len(FAULTS)} faults planted, {failures} not found as they should be")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
