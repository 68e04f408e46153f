#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Compiles and runs the samples of the documentation, so that all of them work.

Usage: check_samples.py --root FOLDER --prefix FOLDER --compiler PROGRAM --left-out N
                        [--only code|commands] FILE.md...

Every fenced block with one of these languages is tried:

  cpp, c    compiled against the installation in PREFIX; a whole program is linked, too
  cmake     configured and built, with a main.cpp beside it
  json      parsed
  sh        run; every command must succeed
  console   run; what follows "$ " must print what the document says, up to numbers

The shell's blocks of a page run one after the other in one folder, "/srv/game" in what they print,
in which the builds and functions of world.sh are there. A comment in front of a block, one or more
lines "<!-- KEY: VALUE -->", says how it is to be taken:

  not run: REASON     leaves it out. How many there are must be told by --left-out
  first: COMMANDS     are run before it, in a world that is made anew
  meanwhile: COMMANDS are run before it, in the world as it is
  each alone: yes     each of its commands is run in a world that is prepared for it
  inside: NAME        what a piece of C++ stands in: inside/NAME.cpp, at the line "// SAMPLE"
  file: PATH          it is also written into the world
  run: ARGUMENTS      the program is run there and must succeed
  without: stderr     the block does not show what goes there
  qt: MAJOR           it is for this major version alone, and no sample with others
"""

import argparse
import itertools
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
CODE = {"cpp", "c", "cmake", "json"}
COMMANDS = {"sh", "console"}
OTHERS = {"", "text"}  # what is printed or drawn, and nothing to try
KEYS = {"not run", "first", "meanwhile", "each alone", "inside", "file", "run", "without", "qt"}
FENCE = re.compile(r"^```(\w*)\s*$")
PLACE = re.compile(r"^ *// SAMPLE$", re.MULTILINE)
COMMENT = re.compile(r"^<!-- ([a-z ]+): (.*?)(?: -->)?$")


class Block:
    def __init__(self, path, line, language, directives):
        self.path, self.line, self.language = path, line, language
        self.directives = directives
        self.lines = []

    @property
    def text(self):
        return "\n".join(self.lines) + "\n"

    @property
    def place(self):
        return f"{self.path.name}:{self.line}"


class Failure(Exception):
    pass


def blocks_of(path, options):
    """The fenced blocks of a page, but for those for another Qt."""
    return [block for block in all_blocks_of(path)
            if block.directives.get("qt", options.qt) == options.qt]


def all_blocks_of(path):
    """All fenced blocks of a page, each with the comments that stand right before it."""
    blocks, directives, block, value = [], {}, None, None
    for number, line in enumerate(path.read_text().splitlines(), 1):
        fence = FENCE.match(line)
        if block is not None:
            if line.startswith("```"):
                block = None
            else:
                block.lines.append(line)
        elif fence:
            block = Block(path, number, fence.group(1), directives)
            blocks.append(block)
            directives = {}
        elif value is not None:  # of a comment of several lines
            directives[value] += " " + line.removesuffix("-->").strip()
            value = None if line.endswith("-->") else value
        elif (comment := COMMENT.match(line)) and comment.group(1) in KEYS:
            directives[comment.group(1)] = comment.group(2)
            value = None if line.endswith("-->") else comment.group(1)
        elif line.strip():
            directives = {}
    return blocks


def run(arguments, folder, environment=None, status=0, stderr=subprocess.STDOUT):
    result = subprocess.run(arguments, cwd=folder, env=environment, text=True,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=stderr,
                            timeout=600, check=False)
    if status is not None and result.returncode != status:
        command = " ".join(map(str, arguments))
        raise Failure(f"status {result.returncode} of: {command}\n{result.stdout}")
    return result.stdout


class World:
    """The folder in which the commands of a page are run."""

    def __init__(self, options):
        self.options = options
        self.scratch = Path(tempfile.mkdtemp(prefix="pellox-docs-"))
        self.folder = self.scratch / "game"
        self.folder.mkdir()
        prefix = options.prefix
        self.environment = dict(
            os.environ, LC_ALL="C.UTF-8", HOME=str(self.scratch), CXX=options.compiler,
            PATH=f"{prefix}/bin:{self.folder}:{os.environ['PATH']}",
            LD_LIBRARY_PATH=f"{prefix}/lib", PKG_CONFIG_PATH=f"{prefix}/lib/pkgconfig",
            CMAKE_PREFIX_PATH=str(prefix), WORLD=str(HERE / "world.sh"),
            SOURCES=str(options.root), CDN=f"file://{self.folder}/cdn",
            FAULTS=str(options.faults))
        self.shell("new_world")

    def remove(self):
        shutil.rmtree(self.scratch, ignore_errors=True)

    def prepare(self, block):
        if "first" in block.directives:
            self.shell("new_world; " + block.directives["first"])
        if "meanwhile" in block.directives:
            self.shell(block.directives["meanwhile"])

    def shell(self, commands, status=0, stderr=subprocess.STDOUT):
        commands = commands.replace("PREFIX", str(self.options.prefix))
        script = f'set -euo pipefail\nsource "$WORLD"\n{commands}\n'
        return run(["bash", "-c", script], self.folder, self.environment, status, stderr)

    def shown(self, text):
        """What a reader in /srv/game would see."""
        return text.replace(str(self.folder), "/srv/game")


# --- code


def compile_sample(block, options, world):
    includes = [line for line in block.lines if line.startswith("#include")]
    text = block.text
    if block.language == "cpp" and "inside" in block.directives:
        frame = (HERE / "inside" / f"{block.directives['inside']}.cpp").read_text()
        if len(PLACE.findall(frame)) != 1:
            raise Failure("its frame has no place for it")
        rest = "\n".join(line for line in block.lines if line not in includes)
        text = "\n".join(includes) + "\n" + PLACE.sub(lambda _: rest, frame)
    suffix = {"c": "c", "cpp": "cpp"}[block.language]
    source = world.scratch / f"sample.{suffix}"
    source.write_text(text)
    program = world.scratch / "sample"
    is_program = re.search(r"^int main\(", text, re.MULTILINE)
    package = {"c": "PelloxC", "cpp": "Pellox"}[suffix]
    flags = run(["pkg-config", "--cflags", package], world.folder, world.environment).split()
    compilers = {"c": [options.c_compiler, "-std=c99"], "cpp": [options.compiler, "-std=c++17"]}
    command = [*compilers[suffix], "-Wall", "-Wextra", "-Werror", "-fPIC", *flags, source]
    if not is_program:
        run([*command, "-c", "-o", world.scratch / "sample.o"], world.folder, world.environment)
        return
    libraries = run(["pkg-config", "--libs", package], world.folder, world.environment).split()
    run([*command, "-o", program, *libraries], world.folder, world.environment)
    if "run" in block.directives:
        world.shell(f'"{program}" {block.directives["run"]}')


def configure_sample(block, options, world):
    folder = world.scratch / "cmake"
    folder.mkdir()
    text = block.text
    if "project(" not in text:
        program = re.search(r"target_link_libraries\((\w+)", text).group(1)
        text = (f"cmake_minimum_required(VERSION 3.25)\nproject({program} CXX)\n"
                f"add_executable({program} main.cpp)\n{text}")
    (folder / "CMakeLists.txt").write_text(text)
    shutil.copy(HERE / "inside" / "main.cpp", folder)
    run(["cmake", "-S", folder, "-B", folder / "build",
         f"-DCMAKE_CXX_COMPILER={options.compiler}"], folder, world.environment)
    run(["cmake", "--build", folder / "build"], folder, world.environment)


def check_code(block, options):
    if block.language == "json":
        json.loads(block.text)
        return
    world = World(options)
    try:
        world.prepare(block)
        if block.language == "cmake":
            configure_sample(block, options, world)
        else:
            compile_sample(block, options, world)
    finally:
        world.remove()


# --- commands


def joined(lines):
    """The lines of a shell's block, with those that go on behind a backslash in one."""
    text = re.sub(r"\\\n\s*", "", "\n".join(lines))
    return text.split("\n")


def steps_of(block):
    """Of a block "console": each command with the lines that it is to print."""
    steps = []
    for line in joined(block.lines):
        if line.startswith("$ "):
            steps.append((line[2:], []))
        elif steps:
            steps[-1][1].append(line)
        else:
            raise Failure(f"no command stands before: {line}")
    return steps


PROGRESS = re.compile(r"^(\w+): +\d+ %  .*$")
SIZE = re.compile(r"~?\d[\d.,]*(?:e[+-]\d+)? (?:bytes|[KMGT]iB)")
PERCENT = re.compile(r"\d+\.\d %")
DIGITS = re.compile(r"\b[0-9a-f]{8,}(?:\.\.\.)?")


def plain(line):
    """A line without what differs from one machine and one build to another."""
    line = PROGRESS.sub(r"\1: PROGRESS", line.rstrip())
    line = SIZE.sub("SIZE", line)
    line = PERCENT.sub("N %", line)
    line = DIGITS.sub("HEX", line)
    if line.startswith("{"):
        line = re.sub(r':\d+', ":N", line)
    return re.sub(r" +", " ", line)


def sorted_errors(lines):
    """What several threads tell one after the other, in any order."""
    return [line for is_error, group in itertools.groupby(lines, lambda line: ": error: " in line)
            for line in (sorted(group) if is_error else group)]


def last_progress(lines):
    """On a slow machine there is more of it."""
    return [line for i, line in enumerate(lines)
            if not line.endswith(": PROGRESS") or line not in lines[i + 1:]]


def plain_lines(text):
    lines = [plain(line) for line in text.split("\n")]
    lines = [line for line in lines if line and '"event":"progress"' not in line]
    lines = [line for line, _ in itertools.groupby(last_progress(lines))]
    return sorted_errors(lines)


def fits(expected, actual):
    """Whether two lists of lines are the same; "..." stands for any number of lines."""
    if not expected:
        return not actual
    if expected[0] == "...":
        return any(fits(expected[1:], actual[i:]) for i in range(len(actual) + 1))
    return bool(actual) and expected[0] == actual[0] and fits(expected[1:], actual[1:])


def run_console(block, world):
    hides = block.directives.get("without") == "stderr"
    stderr = subprocess.DEVNULL if hides else subprocess.STDOUT
    for command, output in steps_of(block):
        actual = plain_lines(world.shown(world.shell(command, status=None, stderr=stderr)))
        expected = plain_lines("\n".join(output))
        if expected and not fits(expected, actual):
            raise Failure("\n".join([f"$ {command}", "is to print", *expected, "but prints",
                                     *actual]))


def run_alone(block, world):
    count = 0
    for line in joined(block.lines):
        command = line.split("#")[0].strip()
        if command:
            name = command.split()[1]
            world.shell(f"new_world; prepare {name}; {command} || [ $? -eq 10 ]")
            count += 1
    if not count:
        raise Failure("no command")


def run_commands(block, world):
    world.prepare(block)
    if "each alone" in block.directives:
        run_alone(block, world)
    elif block.language == "console":
        run_console(block, world)
    else:
        world.shell(block.text)


# --- all


def left_out(block):
    return block.language in CODE | COMMANDS and "not run" in block.directives


def is_wanted(block, only):
    languages = {"code": CODE, "commands": COMMANDS}.get(only, CODE | COMMANDS)
    return block.language in languages and not left_out(block)


def check_page(path, options):
    """Yields a text for each block that is not as it should be."""
    world = None
    for block in blocks_of(path, options):
        if block.language not in CODE | COMMANDS | OTHERS:
            yield f"{block.place}: {block.language} is no language that is known here"
        if left_out(block) or block.language in OTHERS:
            continue
        try:
            if block.language in CODE and is_wanted(block, options.only):
                check_code(block, options)
            is_for_world = block.language in COMMANDS or "file" in block.directives
            if options.only != "code" and is_for_world:
                world = world or World(options)
                if "file" in block.directives:
                    file = world.folder / block.directives["file"]
                    file.parent.mkdir(parents=True, exist_ok=True)
                    file.write_text(block.text)
                if block.language in COMMANDS:
                    run_commands(block, world)
        except (Failure, ValueError, OSError, subprocess.TimeoutExpired) as problem:
            yield f"{block.place}: {problem}"
    if world:
        world.remove()


def absolute(path):
    return Path(path).resolve()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", type=absolute, required=True)
    parser.add_argument("--prefix", type=absolute, required=True)
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--c-compiler", default="cc")
    parser.add_argument("--faults", type=absolute, help="the library that kills programs")
    parser.add_argument("--left-out", type=int, required=True)
    parser.add_argument("--qt", default="5", help="the major version that the library is made with")
    parser.add_argument("--only", choices=["code", "commands"])
    parser.add_argument("pages", type=Path, nargs="+")
    options = parser.parse_args()

    problems, tried, skipped = [], 0, []
    for page in options.pages:
        for block in blocks_of(page, options):
            if left_out(block):
                skipped.append(f"{block.place}: not run: {block.directives['not run']}")
            tried += is_wanted(block, options.only)
        problems += check_page(page, options)
    if len(skipped) != options.left_out:
        problems.append(f"{len(skipped)} blocks are left out, but {options.left_out} may be")
    print("\n".join(skipped))
    print("\n\n".join(problems))
    print(f"{tried} samples tried, {len(skipped)} left out, {len(problems)} problems")
    return 1 if problems or not tried else 0


if __name__ == "__main__":
    sys.exit(main())
