#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where check_samples.py takes a page with a fault, or finds one in a page without.

Usage: check_net.py OPTIONS OF check_samples.py, but for --only, --left-out and the pages
"""

import subprocess
import sys
import tempfile
from pathlib import Path

CHECK = Path(__file__).resolve().parent / "check_samples.py"


def block(language, *lines, directives=()):
    comments = [f"<!-- {directive} -->" for directive in directives]
    return "\n".join([*comments, f"```{language}", *lines, "```", ""])


def console(*lines, directives=()):
    return block("console", *lines, directives=directives)


def printed(shown, text):
    """A command that prints TEXT where the page shows SHOWN."""
    lines = " ".join(f"'{line}'" for line in text.split("\n"))
    return console(f"$ printf '%s\\n' {lines}", *shown.split("\n"))


EVENT = '{"event":"progress","stage":"update","done":%d,"total":%d,"rate":%d,"left":%d}'
PACKED = "Packed 4 files (%.1f KiB) into 1 volume (%.1f KiB): /srv/game/upload/1.0-1.1.7z.001"
LONG = "expect " + "0123456789abcdef" * 8
OTHER = "expect 0123456" + "0123456789abcdef" * 7 + "012345678"

# Each page with what is told of it. TOLD is nothing where the page is right.
PAGES = {
    "prose alone": ("A page.\n", "0 samples tried"),
    "a good one": (console("$ echo 1.0 KiB of 2", "1.0 KiB of 2"), ""),
    # What the net would not see.
    "an indented fence": (
        "1. Do this:\n\n   ```sh\n   true\n   ```\n", "a fence stands at the start"),
    "a quoted fence": ("> ```sh\n> true\n> ```\n", "a fence stands at the start"),
    "a fence of tildes": ("~~~sh\ntrue\n~~~\n", "a fence stands at the start"),
    "a fence with two words": ("```sh now\ntrue\n```\n", "a fence stands at the start"),
    "an open fence": ("```sh\ntrue\n", "a fence is not closed"),
    "an unknown word": (block("bash", "true"), "'bash' is no language"),
    "no word": (block("", "true"), "'' is no language"),
    "code that is indented": ("Do this:\n\n    scripts/demo.sh\n", "code stands between fences"),
    "a list that is indented": ("- Do this\n\n    and that.\n" + block("sh", "true"), ""),
    "a command in a text": (block("text", "cmake --preset release"), "commands are no text"),
    "a script in a text": (block("text", "scripts/package.sh"), "commands are no text"),
    "a prompt in a text": (block("text", "$ true"), "commands are no text"),
    "a message in a text": (block("text", "pellox: checking") + block("sh", "true"), ""),
    "a misspelt comment": (block("sh", "true", directives=["not ran: x"]), "'not ran' is nothing"),
    "one left out too many": (
        block("sh", "false", directives=["not run: x"]), "1 blocks are left out, but 0 may be"),
    "a script that is gone": (
        block("sh", "scripts/gone.sh", directives=["not run: x"]), "there is no scripts/gone.sh"),
    "a preset that is gone": (
        block("sh", "cmake --preset gone", directives=["not run: x"]), "there is no preset gone"),
    # How commands end.
    "a failing script": (block("sh", "false", "true"), "status 1 of"),
    "a failing command": (console("$ false"), "status 1 of"),
    "one behind dots": (console("$ echo no; exit 3", "..."), "status 3 of"),
    "one before another": (console("$ false", "...", "$ true"), "status 1 of"),
    "one that is expected": (console("$ true", "$ exit 3", directives=["status: 0 3"]), ""),
    "another end": (console("$ exit 4", directives=["status: 3"]), "status 4 of"),
    "no such end": (console("$ true", directives=["status: 3"]), "status 0 of"),
    "ends of nothing": (console("$ true", directives=["status: 0 0"]), "more statuses than"),
    "one that fails alone": (
        block("sh", "test sign = 1", directives=["each alone: yes"]), "status 1"),
    # What they print.
    "what is not shown": (console("$ echo more"), "but prints"),
    "what is not printed": (console("$ true", "more"), "is to print"),
    "a size": (printed("4.0 KiB of deltas", "3.1 KiB of deltas"), "is to print"),
    "bytes": (printed("4 bytes", "5 bytes"), "is to print"),
    "a count": (printed("2 files", "3 files"), "is to print"),
    "a share": (printed("in all 97.3 %", "in all 97.4 %"), "is to print"),
    "a number of JSON": (
        printed('{"event":"seal","keys":1}', '{"event":"seal","keys":2}'), "is to print"),
    "members in another order": (printed('{"a":1,"b":2}', '{"b":2,"a":1}'), ""),
    "the total of progress": (
        printed("sign: 100 %  ~2.8 MiB of 2.8 MiB", "sign: 100 %  ~2.9 MiB of 2.9 MiB"),
        "is to print"),
    "progress that goes on": (
        printed("sign: 99 %  ~2.8 MiB of 2.9 MiB", "sign: 100 %  ~2.9 MiB of 2.9 MiB"),
        "is to print"),
    "the rate of progress": (
        printed("sign: 100 %  ~2.9 MiB of 2.9 MiB  1.0 MiB/s",
                "sign: 3 %  ~0.1 MiB of 2.9 MiB\nsign: 100 %  ~2.9 MiB of 2.9 MiB"), ""),
    "the total of an event": (printed(EVENT % (9, 9, 1, 0), EVENT % (8, 8, 1, 0)), "is to print"),
    "an event that goes on": (printed(EVENT % (8, 9, 1, 0), EVENT % (9, 9, 1, 0)), "is to print"),
    "the rate of an event": (
        printed(EVENT % (9, 9, 1, 0), EVENT % (2, 9, 1, 5) + "\n" + EVENT % (9, 9, 7, 1)), ""),
    "a checksum": (printed("expect 01234567...", LONG), ""),
    "another checksum": (printed("expect 01234567...", OTHER), "is to print"),
    "an archive": (printed(PACKED % (26.4, 26.6), PACKED % (26.4, 26.0)), ""),
    "a larger archive": (printed(PACKED % (26.4, 26.6), PACKED % (26.4, 29.6)), "is to print"),
    "what is packed": (printed(PACKED % (26.4, 26.6), PACKED % (26.5, 26.6)), "is to print"),
}


def check(options, folder, text, *more):
    page = Path(folder, "page.md")
    page.write_text(text)
    result = subprocess.run([sys.executable, CHECK, *options, *more, page], check=False, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return result.returncode, result.stdout, page.read_text()


def problem_of(options, folder, text, told):
    left_out = "0" if "but 0 may be" in told else str(text.count("<!-- not run:"))
    status, output, _ = check(options, folder, text, "--only", "commands", "--left-out", left_out)
    if status != (1 if told else 0):
        return f"status {status}\n{output}"
    return "" if told in output else f"does not tell: {told}\n{output}"


def problem_of_renewal(options, folder):
    """Numbers are renewed, and nothing where a word is another."""
    text = console("$ echo 5 files, 1.5 KiB; echo all", "4 files, 31 bytes", "all", "$ echo 2 new",
                   "1 old")
    renewed = text.replace("\n4 files, 31 bytes", "\n5 files, 1.5 KiB")
    _, _, page = check(options, folder, text, "--only", "commands", "--left-out", "0", "--renew")
    return "" if page == renewed else f"has made of it\n{page}"


def main():
    options = sys.argv[1:]
    with tempfile.TemporaryDirectory(prefix="pellox-net-") as folder:
        problems = [(name, problem_of(options, folder, *page)) for name, page in PAGES.items()]
        problems.append(("--renew", problem_of_renewal(options, folder)))
    for name, problem in filter(lambda pair: pair[1], problems):
        print(f"{name}: {problem}\n")
    return 1 if any(problem for _, problem in problems) else 0


if __name__ == "__main__":
    sys.exit(main())
