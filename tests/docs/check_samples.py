#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Compiles and runs the samples of the documentation, so that all of them work.

Usage: check_samples.py --root FOLDER --prefix FOLDER --compiler PROGRAM --left-out N
                        [--only code|commands] [--renew] FILE.md...

Nothing that looks like a sample may escape: a fence that is indented or has another word behind it
than these, code that is only indented and commands in a block "text" are problems. Every fenced
block with one of these languages is tried:

  cpp, c    compiled against the installation in PREFIX; a whole program is linked, too
  cmake     configured and built, with a main.cpp beside it
  json      parsed
  nginx     taken by "nginx -t" inside of a server, where nginx is installed
  sh        run; every command must succeed
  console   run; what follows "$ " must succeed and print what the document says

Numbers must be what the document says, too, but for those that differ from one machine to another:
rates and times, how far a run came that failed, and by a twentieth the size of an archive. Of a
checksum the first eight digits count. "..." stands for any number of lines. --renew writes the
numbers that are printed now into the pages.

The shell's blocks of a page run one after the other in one folder, "/srv/game" in what they print,
in which the builds and functions of world.sh are there. A comment in front of a block, one or more
lines "<!-- KEY: VALUE -->", says how it is to be taken:

  not run: REASON     leaves it out. How many there are must be told by --left-out. The scripts and
                      presets that it names must be there all the same
  first: COMMANDS     are run before it, in a world that is made anew
  meanwhile: COMMANDS are run before it, in the world as it is
  each alone: yes     each of its commands is run in a world that is prepared for it
  status: N...        how its commands end, in their order; those that are left over with 0
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
CODE = {"cpp", "c", "cmake", "json", "nginx"}
COMMANDS = {"sh", "console"}
OTHERS = {"text"}  # what is printed or drawn, and nothing to try
KEYS = {"not run", "first", "meanwhile", "each alone", "status", "inside", "file", "run", "without",
        "qt"}
NGINX = shutil.which("nginx", path=f"{os.environ.get('PATH', '')}:/usr/sbin")
FENCE = re.compile(r"^```(\w*)\s*$")
ANY_FENCE = re.compile(r"^[\s>]*(```|~~~)")
INDENTED = re.compile(r"^(?: {4}|\t)\s*\S")
LIST_ITEM = re.compile(r"^(?:[-*+]|\d+[.)]) ")
LIKE_COMMAND = re.compile(
    r"^(?:\$ \S|(?:sudo|cmake|ctest|pellox|git|apt|apt-get|pkg-config|scripts/\S+|\.ci/\S+) )"
    r"|^(?:scripts|\.ci)/\S+$")
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
        elif comment := COMMENT.match(line):
            directives[comment.group(1)] = comment.group(2)
            value = None if line.endswith("-->") else comment.group(1)
        elif line.strip():
            directives = {}
    return blocks


def problems_of_form(path):
    """Yields a text for each place of a page where a sample would be seen by readers alone."""
    opened, before, paragraph = None, "", ""
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if opened:
            opened = None if line.lstrip().startswith(opened) else opened
        elif fence := ANY_FENCE.match(line):
            opened = fence.group(1)
            if not FENCE.match(line):
                yield (f"{path.name}:{number}: a fence stands at the start of its line, "
                       "``` and one word")
        elif INDENTED.match(line) and not before and not LIST_ITEM.match(paragraph):
            yield f"{path.name}:{number}: code stands between fences: {line.strip()}"
        before = line.strip()
        if before and not line[0].isspace():
            paragraph = line  # to which indented lines belong
    if opened:
        yield f"{path.name}: a fence is not closed"


def problems_of_block(block, root):
    """Yields what is wrong with a block before it is tried."""
    if block.language not in CODE | COMMANDS | OTHERS:
        yield f"{block.place}: '{block.language}' is no language that is known here"
    for key in block.directives.keys() - KEYS:
        yield f"{block.place}: '{key}' is nothing that can be told of a block"
    if block.language in OTHERS:
        for line in filter(LIKE_COMMAND.match, block.lines):
            yield f"{block.place}: commands are no text: {line}"
    if left_out(block) and block.language in COMMANDS:
        for missing in missing_parts(block, root):
            yield f"{block.place}: there is no {missing}"


def missing_parts(block, root):
    """Yields what the commands of a block that is not run name, and the source has not got."""
    for script in re.findall(r"(?:^|\s)((?:scripts|\.ci|examples)/[\w./-]+)", block.text):
        if not (root / script).exists():
            yield script
    presets = json.loads((root / "CMakePresets.json").read_text())
    known = {preset["name"] for preset in presets["configurePresets"]}
    for preset in re.findall(r"--preset (\S+)", block.text):
        if preset not in known:
            yield f"preset {preset}"


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


def check_server(block):
    with tempfile.TemporaryDirectory(prefix="pellox-nginx-") as folder:
        body = block.text.replace("\n", "\n        ")
        temporary = "".join(f"    {kind}_temp_path {folder}/{kind};\n"
                            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        Path(folder, "nginx.conf").write_text(
            f"pid {folder}/pid;\nerror_log stderr;\nevents {{}}\nhttp {{\n    access_log off;\n"
            f"{temporary}    server {{\n        listen 8080;\n        {body}\n    }}\n}}\n")
        run([NGINX, "-t", "-p", folder, "-c", f"{folder}/nginx.conf"], folder)


def check_code(block, options):
    if block.language == "json":
        json.loads(block.text)
        return
    if block.language == "nginx":
        if NGINX:
            check_server(block)
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


PROGRESS = re.compile(r"^(\w+): +(\d+) %  ~?.+? of (.+?)(?:  .*)?$")
CHECKSUM = re.compile(r"\b([0-9a-f]{8})(?:[0-9a-f]{120}|\.\.\.)")
ARCHIVE = re.compile(r"^(Packed .* into \d+ volumes? \()([\d.]+)( [KM]iB\).*)$")
OF_MACHINE = ("rate", "left", "file")  # members of the event "progress"


class Line:
    """What a command prints, or is to print, in one line."""

    def __init__(self, raw):
        self.raw = raw.rstrip()
        self.stage = None  # of progress, which slow machines tell more often
        self.plain = self.without_machine()

    def without_machine(self):
        """The line without what differs from one machine to another."""
        if self.raw.startswith("{"):
            return self.of_json()
        if progress := PROGRESS.match(self.raw):
            self.stage, percent, total = progress.groups()
            end = "to its end" if percent == "100" else "in part"
            return f"{self.stage}: {end}, of {total}"
        return re.sub(r" +", " ", CHECKSUM.sub(r"\1", self.raw))

    def of_json(self):
        event = json.loads(self.raw)
        if event.get("event") == "progress":
            self.stage = (event["stage"], event.get("phase"))
            event = {key: value for key, value in event.items() if key not in OF_MACHINE}
        return json.dumps(event, sort_keys=True)

    def is_gap(self):
        return self.raw == "..."

    def is_error(self):
        return ": error: " in self.raw

    def fits(self, other):
        ours, others = ARCHIVE.match(self.plain), ARCHIVE.match(other.plain)
        if ours and others and ours.group(1, 3) == others.group(1, 3):
            return abs(float(ours.group(2)) / float(others.group(2)) - 1) <= 1 / 20
        return self.plain == other.plain

    def fits_but_for_numbers(self, other):
        def form(line):
            return re.sub(r"\d[\d.,]*(?: (?:bytes|[KMGT]iB))?", "N", line.plain).replace("- ", "")
        return form(self) == form(other)


def lines_of(text):
    """What counts of it: of progress the last of each stage, and errors of threads in one order."""
    lines = [Line(line) for line in text.split("\n") if line.strip()]
    last = {line.stage: line for line in lines}
    lines = [line for line in lines if not line.stage or last[line.stage] is line]
    return [line for is_error, group in itertools.groupby(lines, Line.is_error)
            for line in (sorted(group, key=lambda line: line.plain) if is_error else group)]


def aligned(expected, actual, same):
    """Pairs of lines that are the same, or None where some are not; "..." fits any lines."""
    if not expected:
        return None if actual else []
    if expected[0].is_gap():
        ends = (aligned(expected[1:], actual[i:], same) for i in range(len(actual) + 1))
        return next((end for end in ends if end is not None), None)
    if not actual or not same(expected[0], actual[0]):
        return None
    rest = aligned(expected[1:], actual[1:], same)
    return None if rest is None else [(expected[0], actual[0]), *rest]


def renew(block, expected, actual):
    """Writes the numbers of @p actual into the page, if nothing else is different."""
    text = block.text
    for old, new in aligned(expected, actual, Line.fits_but_for_numbers) or []:
        if not old.fits(new):
            text = text.replace(old.raw, new.raw, 1)
    page = block.path.read_text()
    if page.count(block.text) == 1:
        block.path.write_text(page.replace(block.text, text))
        block.lines = text.removesuffix("\n").split("\n")


def statuses_of(block, count):
    told = [int(word) for word in block.directives.get("status", "").split()]
    if len(told) > count:
        raise Failure("tells more statuses than it has commands")
    return told + [0] * (count - len(told))


def run_console(block, world):
    hides = block.directives.get("without") == "stderr"
    stderr = subprocess.DEVNULL if hides else subprocess.STDOUT
    steps = steps_of(block)
    for (command, output), status in zip(steps, statuses_of(block, len(steps))):
        actual = lines_of(world.shown(world.shell(command, status=status, stderr=stderr)))
        expected = lines_of("\n".join(output))
        if world.options.renew:
            renew(block, expected, actual)
        elif aligned(expected, actual, Line.fits) is None:
            raise Failure("\n".join(
                [f"$ {command}", "is to print", *(line.plain for line in expected),
                 "but prints", *(line.plain for line in actual)]))


def run_alone(block, world):
    count = 0
    for line in joined(block.lines):
        command = line.split("#")[0].strip()
        if command:
            name = command.split()[1]
            world.shell(f"new_world; prepare {name}; {command}")
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
    yield from problems_of_form(path)
    for block in blocks_of(path, options):
        yield from problems_of_block(block, options.root)
        if left_out(block):
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
    parser.add_argument("--renew", action="store_true")
    parser.add_argument("pages", type=Path, nargs="+")
    options = parser.parse_args()

    problems, tried, skipped = [], 0, []
    for page in options.pages:
        for block in blocks_of(page, options):
            if block.language == "nginx" and not NGINX:
                print(f"{block.place}: nginx is not installed and does not look at it")
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
