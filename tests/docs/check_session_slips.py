#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where check_session.py does not see that the recorded terminal session is out of date.

Usage: check_session_slips.py SOURCE_FOLDER PROGRAM
"""

import re
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # beside the sources
from check_session import commands_of, problems_of, steps_of_today  # noqa: E402

# What stands in the recording, what stands there instead, and whether that is out of date.
CHANGES = [
    (r" --keep-previous", "", True),
    (r"rollback installed/game<", "rollback  installed/game<", True),
    (r"(releases/1\.1 )(patches/1\.0-1\.1<)", r"\2", True),
    (r"pellox: checking", "pellox: looking", True),
    (r"pellox: putting the new files in place", "", True),
    (r"Signed (\d+) files", r"\1 files signed", True),
    (r"\d+ of (\d+ files )", r"\1", True),
    (r"Brought the build before back", "Brought back", True),
    (r", \d+ files? to copy \([^)]*\)", "", True),
    (r"/srv/game/signatures", "/srv/signatures", True),
    (r"\d(\.\d [MK]iB\))", r"7\1", False),
    (r"\d( files to patch)", r"7\1", False),
    (r"\d( files? to copy)", r"7\1", False),
    (r"  [\d.]+ [MG]iB/s", "", False),
    (r">\d+M<", ">2.5K<", False),
]


def main():
    root, program = Path(sys.argv[1]), sys.argv[2]
    commands = commands_of((root / "scripts" / "record-session.sh").read_text())
    svg = (root / "docs" / "images" / "session.svg").read_text()
    today = steps_of_today(commands, program)
    wrong = []
    for pattern, instead, is_out_of_date in CHANGES:
        changed = re.sub(pattern, instead, svg)
        if changed == svg:
            wrong.append(f'"{pattern}" is not in the recording')
        elif bool(list(problems_of(changed, commands, today))) != is_out_of_date:
            wrong.append(f'"{instead}" for "{pattern}" is judged wrongly')
    for others in ([*commands, "pellox recover installed/game"], commands[1:]):
        if not list(problems_of(svg, others, today)):
            wrong.append(f"{len(others)} other commands are judged wrongly")
    print("\n".join(wrong) or f"{len(CHANGES) + 2} changes, judged as they are")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
