#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where a fault, planted into a copy of the sources, is not found by the two checks beside.

Usage: check_checks.py SOURCE_FOLDER
"""

import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
LAYERS, PICTURE = "check_layers.py", "check_picture.py"

# The file that gets one more line, the line, and which checks see it.
FAULTS = [
    ("src/foundation/digest.cpp", '#include "updaterun.h"', {LAYERS, PICTURE}),
    ("src/foundation/digest.cpp", "#include <updaterun.h>", {LAYERS, PICTURE}),
    ("src/foundation/digest.cpp", "#include<workflow/update/updaterun.h>", {LAYERS, PICTURE}),
    ("src/foundation/digest.cpp", '#include "../workflow/update/updaterun.h"', {LAYERS, PICTURE}),
    ("src/foundation/digest.cpp", "#include <Pellox/UpdateController>", {LAYERS, PICTURE}),
    ("src/foundation/digest.cpp", "#include <Pellox/updatecontroller.h>", {LAYERS, PICTURE}),
    ("src/foundation/digest.cpp", "#include <UpdateController>", {LAYERS, PICTURE}),
    ("src/foundation/digest.cpp", "#include <Pellox/nothing.h>", {LAYERS}),
    ("src/foundation/digest.cpp", '#include "nothing.h"', {LAYERS}),
    ("tools/pellox/main.cpp", "#include <digest.h>", {LAYERS}),
    ("tools/pellox/main.cpp", "#include <Pellox/digest.h>", {LAYERS}),
    ("tools/pellox/main.cpp", "#include <UpdateController>", {LAYERS}),
    ("tools/pellox/main.cpp", '#include "updatecontroller.h"', {LAYERS}),
    ("src/pelloxmor.cpp", '#include "digest.h"', {LAYERS}),
    ("src/util/utils.cpp", '#include "digest.h"', {LAYERS}),
    ("src/archive/sevenzip.cpp", '#include "deltafile.h"', {LAYERS}),
    ("src/archive/sevenzip.cpp", "#include <Pellox/patchhelp.h>", {LAYERS}),
    ("src/capi/job.cpp", '#include "updaterun.h"', {LAYERS}),
    ("src/capi/job.cpp", '#include "namedpipe.h"', {LAYERS}),
    ("src/client/trace.cpp", '#include "job.h"', {LAYERS, PICTURE}),
    ("docs/layers.dot", '"foundation" -> "util"', {PICTURE}),
    # These are none.
    ("src/foundation/digest.cpp", "#include <update/updaterun.h.in>", set()),
    ("src/foundation/digest.cpp", "#include <elsewhere/digest.h>", set()),
    ("src/foundation/digest.cpp", "#include <Pellox/patchhelp.h>", set()),
    ("src/util/utils.cpp", '#include "namedpipe.h"', set()),
    ("src/archive/sevenzip.cpp", '#include "foundation/loggedlist.h"', set()),
    ("src/capi/updatecalls.cpp", "#include <Pellox/UpdateController>", set()),
    ("src/capi/updatecalls.cpp", '#include "patchhelp.h"', set()),
    ("tools/pellox/main.cpp", "#include <Pellox/UpdateController>", set()),
]


def checks_that_fail(root):
    commands = {check: [sys.executable, HERE / check, root] for check in (LAYERS, PICTURE)}
    return {
        check
        for check, command in commands.items()
        if subprocess.run(command, stdout=subprocess.DEVNULL, check=False).returncode == 1
    }


def main():
    failures = 0
    with tempfile.TemporaryDirectory() as folder:
        copy = Path(folder)
        for part in ("src", "docs", "tools", "examples"):
            shutil.copytree(Path(sys.argv[1]) / part, copy / part)
        if checks_that_fail(copy):
            sys.exit("the sources have faults themselves")
        for name, line, expected in FAULTS:
            file = copy / name
            text = file.read_text()
            file.write_text(f"{text}{line}\n")
            found = checks_that_fail(copy)
            file.write_text(text)
            if found != expected:
                failures += 1
                print(f"{line} in {name}: found by {sorted(found)}, not by {sorted(expected)}")
    print(f"{len(FAULTS)} lines planted, {failures} judged wrongly")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
