#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where the recorded terminal session is not what the program does today.

The commands must be those of scripts/record-session.sh, and what stands below each must be what it
prints on a terminal, up to numbers, for two small builds instead of the recorded ones.

Usage: check_session.py SOURCE_FOLDER PROGRAM
"""

import fcntl
import os
import pty
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import termios
from pathlib import Path
from xml.etree import ElementTree

SVG = "{http://www.w3.org/2000/svg}"
HREF = "{http://www.w3.org/1999/xlink}href"
COLUMN, ROW = 8, 17  # pixels
COLUMNS, ROWS = 110, 28
COMMAND = re.compile(r"^ *type_and_run '([^']*)'$", re.MULTILINE)
SHOWN_AS = "/srv/game"
BAR = re.compile(r"^ *\d+ % \[")


# --- what was recorded


def text_of(row):
    """A row of the terminal: pieces of text, each from a column on."""
    text = ""
    for piece in row.iter(f"{SVG}text"):
        text = text.ljust(int(piece.get("x")) // COLUMN) + (piece.text or "")
    return text


def pictures_in(svg):
    """What the terminal shows one after the other, each a list of rows."""
    root = ElementTree.fromstring(svg)
    texts = {group.get("id"): text_of(group) for group in root.iter(f"{SVG}g") if group.get("id")}
    view = next(group for group in root.iter(f"{SVG}g") if group.get("id") == "screen_view")
    pictures = []
    for picture in view:
        rows = [""] * ROWS
        for use in picture.iter(f"{SVG}use"):
            row = int(use.get("y")) // ROW % (ROWS + 2)  # they stand one below the other
            text = texts[use.get(HREF)[1:]]
            if len(text) > len(rows[row]):  # not the cursor
                rows[row] = text
        pictures.append(rows)
    return pictures


def last_prompt(rows):
    prompts = [i for i, row in enumerate(rows) if row.startswith("$")]
    return prompts[-1] if prompts else None


def unwrapped(rows):
    """Lines, of which a long one goes on in the next row; a bar takes a row as it is."""
    lines, goes_on = [], False
    for row in rows:
        if goes_on:
            lines[-1] += row
        else:
            lines.append(row)
        goes_on = len(row) == COLUMNS and not row.endswith(" ") and not BAR.match(row)
    return [line.rstrip() for line in lines]


def recorded_steps(svg, commands):
    """For each command the lines below it, or None where it is not in the recording; and lines that
    somebody typed that are none of them."""
    steps, strange = {command: None for command in commands}, set()
    for rows in pictures_in(svg):
        prompt = last_prompt(rows)
        if prompt is None:
            continue
        typed = [row.rstrip() for row in rows[prompt:]]
        if not any(f"$ {command}".startswith(typed[0]) for command in commands):
            strange.add(typed[0])
        for command in commands:
            shown = f"$ {command}".split("\n")
            if typed[: len(shown)] == shown:
                steps[command] = unwrapped(rows[prompt + len(shown) :])
    return steps, sorted(strange)


# --- what is printed today


def make_builds(world):
    """Some files of the new build are changed, one is new and none gone, as in the recording."""
    noise = random.Random(1)
    old, new = world / "releases" / "1.0", world / "releases" / "1.1"
    for build in (old, new):
        build.mkdir(parents=True)
    for name in ("first", "second", "third"):
        content = noise.randbytes(100_000)
        (old / name).write_bytes(content)
        (new / name).write_bytes(content[:50_000] + name.encode() + content[50_000:])
    (old / "same").write_text("same")
    (new / "same").write_text("same")
    (new / "new").write_bytes(noise.randbytes(50_000))
    shutil.copytree(old, world / "installed" / "game")


def run_on_terminal(command, folder, environment):
    """What the command prints, each line as it is at the end."""
    own, its = pty.openpty()
    fcntl.ioctl(its, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
    with subprocess.Popen(
        ["bash", "-c", command], cwd=folder, env=environment, stdin=its, stdout=its, stderr=its
    ) as process:
        os.close(its)
        output = b""
        try:
            while piece := os.read(own, 65536):
                output += piece
        except OSError:
            pass  # how Linux says that nobody holds the other end any more
        os.close(own)
    if process.returncode != 0:
        sys.exit(f"status {process.returncode} of: {command}\n{output.decode()}")
    lines = output.decode().replace("\r\n", "\n").split("\n")
    return [line.split("\r\x1b[K")[-1] for line in lines]


def steps_of_today(commands, program):
    """For each command the lines that it prints."""
    with tempfile.TemporaryDirectory() as folder:
        world = Path(folder).resolve() / "world"
        make_builds(world)
        programs = world.parent / "bin"
        programs.mkdir()
        (programs / "pellox").symlink_to(Path(program).resolve())
        environment = dict(os.environ, LC_ALL="C.UTF-8", TERM="xterm-256color")
        environment["PATH"] = f"{programs}:{environment['PATH']}"
        run_on_terminal("pellox sign -q --fast releases/1.0 signatures/1.0", world, environment)
        steps = {}
        for command in commands:
            lines = run_on_terminal(command, world, environment)
            steps[command] = [line.replace(str(world), SHOWN_AS) for line in lines]
        return steps


# --- both


def plain(line):
    """Without what differs from one build and one machine to another."""
    line = re.sub(r"~?\d[\d.]* (bytes|[KMGT]iB)", "SIZE", line)
    line = re.sub(r"^[\d.]+[KMG]\s+", "SIZE ", line)  # as du prints it
    line = re.sub(r"\b\d[\d,]* files?\b", "N files", line)
    if BAR.match(line):
        line = re.sub(r"\[=+\]", "[=]", line)
        line = re.sub(r"\d[\d,]* of N files", "N of N files", line)
        line = re.sub(r"  (SIZE|N files)/s$", "", line)  # not told of what is too quick
    return line.rstrip()


def plain_lines(lines):
    return [line for line in map(plain, lines) if line]


def commands_of(script):
    commands = COMMAND.findall(script)
    if not commands:
        sys.exit("scripts/record-session.sh types no command")
    return commands


def problems_of(svg, commands, today):
    recorded, strange = recorded_steps(svg, commands)
    for line in strange:
        yield f"scripts/record-session.sh does not type: {line}"
    for command in commands:
        if recorded[command] is None:
            yield f"the recording lacks: {command}"
            continue
        before, now = plain_lines(recorded[command]), plain_lines(today[command])
        if before != now:
            yield "\n    ".join([f"$ {command}", *before, "is recorded; it prints:", *now])


def main():
    root, program = Path(sys.argv[1]), sys.argv[2]
    commands = commands_of((root / "scripts" / "record-session.sh").read_text())
    svg = (root / "docs" / "images" / "session.svg").read_text()
    problems = list(problems_of(svg, commands, steps_of_today(commands, program)))
    if problems:
        problems.append("record it anew: scripts/demo.sh && scripts/record-session.sh")
    print("\n".join(problems) or f"{len(commands)} commands, recorded as they are")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
