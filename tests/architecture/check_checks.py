#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where a fault, planted into a copy of the sources, is not found by the checks beside.

Usage: check_checks.py SOURCE_FOLDER
"""

import shutil
import subprocess
import sys
import tempfile
from contextlib import contextmanager
from pathlib import Path

sys.dont_write_bytecode = True  # beside the sources
import check_layers  # noqa: E402
import check_page  # noqa: E402
import check_picture  # noqa: E402

HERE = Path(__file__).resolve().parent
LAYERS, PICTURE, PAGE = "check_layers.py", "check_picture.py", "check_page.py"
CHECKS = {
    LAYERS: check_layers.problems,
    PICTURE: check_picture.problems,
    PAGE: check_page.problems,
}
WHOLE = ("src", "docs", "tools", "examples", "scripts")

# The file that gets one more line or is made of it, the line, and which checks see it.
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
    ("src/client/trace.cpp", "#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)", {LAYERS}),
    ("tools/pellox/main.cpp", "#if QT_VERSION_MAJOR < 6", {LAYERS}),
    ("docs/layers.dot", '"foundation" -> "util"', {PICTURE}),
    ("src/util/speed.h", "#pragma once", {PAGE}),
    ("src/workflow/files/speed.cpp", "// none", {PAGE}),
    ("src/speed/speed.h", "#pragma once", {LAYERS, PICTURE, PAGE}),
    ("plugins/readme.txt", "none", {PAGE}),
    ("tools/other/main.cpp", "// none", {PAGE}),
    ("scripts/speed.sh", "# none", {PAGE}),
    ("tests/speed/tst_speed.cpp", "// none", {PAGE}),
    ("docs/embed.md", "![Layers](layers.svg)", {PAGE}),
    # These are none.
    ("tools/pellox/speed.cpp", "// none", set()),
    ("build-other/src/speed.cpp", "// none", set()),
    (".idea/settings.xml", "none", set()),
    ("docs/embed.md", "![Layers](layers.svg) of [layers.dot](layers.dot)", set()),
    ("src/foundation/digest.cpp", "#include <update/updaterun.h.in>", set()),
    ("src/foundation/digest.cpp", "#include <elsewhere/digest.h>", set()),
    ("src/foundation/digest.cpp", "#include <Pellox/patchhelp.h>", set()),
    ("src/util/utils.cpp", '#include "namedpipe.h"', set()),
    ("src/archive/sevenzip.cpp", '#include "foundation/loggedlist.h"', set()),
    ("src/capi/updatecalls.cpp", "#include <Pellox/UpdateController>", set()),
    ("src/capi/updatecalls.cpp", '#include "patchhelp.h"', set()),
    ("tools/pellox/main.cpp", "#include <Pellox/UpdateController>", set()),
]

# A page, what stands in it once, and what becomes of it; check_page.py sees it.
SLIPS_OF_PAGES = [
    ("docs/architecture.md", "`deltafile`: ", "`deltafiles`: "),
    ("docs/architecture.md", "`earlysync`: ", ""),
    ("docs/architecture.md", "`loggedlist.h` and ", ""),
    ("docs/architecture.md", "of `foundation`, `namedpipe.h` alone", "`digest.h`, `namedpipe.h`"),
    ("docs/architecture.md", "`fuzz.sh`, ", ""),
    ("docs/architecture.md", "| `tools/pellox` |", "| the program |"),
    ("docs/architecture.md", "| `src/capi` |", "| the interface |"),
    ("docs/architecture.md", "## Folders", "## Files"),
    ("docs/architecture.md", "## Layers", "## Floors"),
    ("docs/architecture.md", "([layers.dot](layers.dot)", "(layers.dot"),
]


def copy_tree(root, copy):
    """All that the checks read; of other folders, that they are there."""

    def strangers(folder, names):
        return set(names) - {path.name for path in check_page.entries(root, Path(folder))}

    shutil.copy(root / ".gitignore", copy)
    for folder in (path for path in check_page.entries(root, root) if path.is_dir()):
        if folder.name in WHOLE:
            shutil.copytree(folder, copy / folder.name, ignore=strangers)
        else:
            (copy / folder.name).mkdir()
    for folder in (path for path in check_page.entries(root, root / "tests") if path.is_dir()):
        (copy / "tests" / folder.name).mkdir()


@contextmanager
def changed(file, change):
    """The file has its text changed meanwhile; what there is not is made, its folders, too."""
    before = file.read_text() if file.exists() else None
    made = [folder for folder in file.parents if not folder.exists()]
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text(change(before or ""))
    yield
    if before is None:
        file.unlink()
    else:
        file.write_text(before)
    for folder in made:
        folder.rmdir()


def checks_that_fail(root):
    return {check for check, problems in CHECKS.items() if any(problems(root))}


def status_judged_wrongly(root):
    """Each check as the program that it is, without a fault and with one that all of them see."""
    for name, change in (("src/pelloxmor.cpp", ""), ("src/speed/speed.h", "#pragma once\n")):
        with changed(root / name, lambda text: text + change):
            for check in CHECKS:
                command = [sys.executable, HERE / check, root]
                run = subprocess.run(command, stdout=subprocess.DEVNULL, check=False)
                if run.returncode != (1 if change else 0):
                    yield f"{check} ends with {run.returncode} for {change.strip()} in {name}"


def lines_judged_wrongly(root):
    for name, line, expected in FAULTS:
        with changed(root / name, lambda text: f"{text}{line}\n"):
            found = checks_that_fail(root)
        if found != expected:
            yield f"{line} in {name}: found by {sorted(found)}, not by {sorted(expected)}"


def slips_judged_wrongly(root):
    for name, told, untold in SLIPS_OF_PAGES:
        page = root / name
        if page.read_text().count(told) != 1:
            yield f'"{told}" does not stand once in {name}'
            continue
        with changed(page, lambda text: text.replace(told, untold)):
            found = checks_that_fail(root)
        if found != {PAGE}:
            yield f'"{untold}" for "{told}" in {name}: found by {sorted(found)}, not by {PAGE}'


def main():
    with tempfile.TemporaryDirectory() as folder:
        copy = Path(folder)
        copy_tree(Path(sys.argv[1]), copy)
        if checks_that_fail(copy):
            sys.exit("the sources have faults themselves")
        problems = [
            *status_judged_wrongly(copy),
            *lines_judged_wrongly(copy),
            *slips_judged_wrongly(copy),
        ]
    print("\n".join(problems))
    print(f"{len(FAULTS) + len(SLIPS_OF_PAGES)} faults planted, {len(problems)} judged wrongly")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
