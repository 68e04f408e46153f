#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Makes tables and plots of what releases.py has measured.

Usage: releases_report.py RESULTS PAGE IMAGES

Replaces in the Markdown file PAGE what stands between the two marker comments, and the plots in
the folder IMAGES. A profile without results is left out.
"""

import csv
import os
import re
import subprocess
import sys
from pathlib import Path
from statistics import median

BEGIN = "<!-- releases: made by scripts/bench.sh -->"
END = "<!-- releases: end -->"
MIB = 1 << 20

WAYS = {
    "publish": "pellox publish",
    "core": "pellox sign, diff",
    "rdiff": "rdiff",
    "rsync": "rsync batch",
    "zstd-3": "zstd -3",
    "zstd-19": "zstd -19",
    "xdelta3-1": "xdelta3 -1",
    "xdelta3-9": "xdelta3 -9",
}
PROFILES = {
    "mixed": "mixed, 1 GiB",
    "huge": "huge, 1 GiB in one file",
    "small": "small, 20,000 files",
    "unchanged": "unchanged, 1 GiB",
    "phaser": "phaser 3.88.1 to 3.88.2",
    "monaco": "monaco-editor 0.52.0 to 0.52.2",
}
GROWTH_BYTES = {"growth-1GiB": 1, "growth-2GiB": 2, "growth-4GiB": 4}
GROWTH_FILES = {"growth-5000": 5, "growth-20000": 20, "growth-80000": 80}


class Profile:
    """The figures of one pair of builds."""

    def __init__(self, folder):
        self.build = read(folder / "build.csv")
        self.summary = {row["way"]: row for row in read(folder / "summary.csv")}
        self.limits = read(folder / "limits.csv") if (folder / "limits.csv").exists() else []
        self.runs = {}
        for row in read(folder / "runs.csv"):
            self.runs.setdefault(row["way"], {})[int(row["round"])] = row

    def has(self, way):
        return way in self.runs and self.summary.get(way, {"status": "ok"})["status"] == "ok"

    def was_slow(self, way):
        """Then its check, number 0, is the only run."""
        return set(self.runs[way]) == {0}

    def ways(self):
        return [way for way in WAYS if way in self.summary]

    def wall(self, way):
        return median(float(run["wall"]) for run in self.runs[way].values())

    def cpu(self, way):
        return median(float(run["user"]) + float(run["system"]) for run in self.runs[way].values())

    def largest_process(self, way):
        return max(int(run["largest process KiB"]) for run in self.runs[way].values()) / 1024

    def all_processes(self, way):
        return max(int(self.summary[way]["all processes KiB"]) / 1024, self.largest_process(way))

    def mebibytes(self, way, what):
        return int(self.summary[way][what]) / MIB

    def ratio(self, way, other):
        """Wall time of the one by that of the other, which ran in the same rounds."""
        rounds = self.runs[way].keys() & self.runs[other].keys()
        if not rounds:
            return self.wall(way) / self.wall(other)
        return median(float(self.runs[way][number]["wall"])
                      / float(self.runs[other][number]["wall"]) for number in rounds)


def read(path):
    with open(path, newline="") as file:
        return list(csv.DictReader(file))


def figure(value):
    """Three digits, and no more than needed."""
    if value >= 99.5:
        return f"{value:,.0f}"
    if value >= 9.95:
        return f"{value:.1f}"
    if value >= 0.0005:
        return f"{value:.2f}" if value >= 0.095 else f"{value:.3f}"
    return "< 0.001" if value > 0 else "0"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines) + "\n"


# --- tables


def way_row(profile, way):
    if not profile.has(way):
        return [WAYS[way], f"*{profile.summary[way]['status']}*"] + [""] * 6
    ratio = figure(profile.ratio("publish", way)) if profile.has("publish") else ""
    packed = figure(profile.mebibytes(way, "packed bytes"))
    return [WAYS[way], figure(profile.wall(way)) + (" ¹" if profile.was_slow(way) else ""),
            ratio, figure(profile.cpu(way)), figure(profile.largest_process(way)),
            figure(profile.all_processes(way)), figure(profile.mebibytes(way, "patch bytes")),
            packed]


def ways_table(profile):
    header = ["", "wall s", "publish / this", "CPU s", "largest process MiB", "all processes MiB",
              "patch MiB", "packed MiB"]
    return table(header, [way_row(profile, way) for way in profile.ways()])


def limit_of(row):
    """Seconds below which nobody gets with this digest and librsync, on all cores."""
    digest = float(row["bytes hashed"]) / float(row["digest B/s"])
    signature = float(row["bytes signed"]) / float(row["signature B/s"])
    longest = float(row["largest file"]) / float(row["digest B/s"])
    return max((digest + signature + float(row["delta s"])) / int(row["cores"]), longest), longest


def limit_row(name, profile):
    limits = {int(row["round"]): row for row in profile.limits}
    walls = {number: float(run["wall"]) for number, run in profile.runs["publish"].items()}
    shares = [limit_of(row)[0] / walls[number] for number, row in limits.items() if number in walls]

    def middle(key):
        return median(float(row[key]) for row in limits.values())

    return [name, figure(middle("digest B/s") / MIB), figure(middle("signature B/s") / MIB),
            figure(middle("bytes hashed") / MIB), figure(middle("bytes signed") / MIB),
            figure(middle("delta s")), figure(median(limit_of(row)[0] for row in limits.values())),
            figure(median(limit_of(row)[1] for row in limits.values())),
            figure(profile.wall("publish")), figure(median(shares)) if shares else ""]


def limits_table(profiles):
    header = ["", "digest MiB/s", "signature MiB/s", "hashed MiB", "signed MiB", "deltas s",
              "limit s", "digest of the largest file s", "publish s", "limit / publish"]
    return table(header, [limit_row(name, profile) for name, profile in profiles.items()
                          if profile.limits and profile.has("publish")])


def floors_table(profiles):
    rows = []
    for name, profile in profiles.items():
        for floor in ("hash alone", "hash and create"):
            if floor in profile.runs and profile.has("publish"):
                rows.append([name, floor, figure(profile.wall(floor)),
                             figure(profile.wall("publish")),
                             figure(profile.ratio("publish", floor))])
    return table(["", "floor", "its wall s", "publish s", "publish / floor"], rows)


def builds_table(profiles):
    rows = []
    for name, profile in profiles.items():
        total = sum(int(row["new bytes"]) for row in profile.build)
        for row in profile.build:
            if int(row["files"]) == 0:
                continue
            share = f"{100 * int(row['new bytes']) / total:.1f} %"
            rows.append([name, row["fate"], f"{int(row['files']):,}",
                         figure(int(row["old bytes"]) / MIB), figure(int(row["new bytes"]) / MIB),
                         share])
            name = ""
    return table(["build", "what becomes of them", "files", "old MiB", "new MiB",
                  "of the new build"], rows)


def growth_table(profiles, sizes, unit):
    first = next(iter(sizes))
    rows = []
    for name, size in sizes.items():
        profile = profiles[name]
        row = [f"{size}{unit}"]
        for way in ("publish", "core", "rdiff"):
            if not (profile.has(way) and profiles[first].has(way)):
                row += ["*failed*", ""]
                continue
            growth = profile.wall(way) / profiles[first].wall(way) / (size / sizes[first])
            row += [figure(profile.wall(way)), figure(growth)]
        row.append(figure(profile.largest_process("publish")) if profile.has("publish") else "")
        rows.append(row)
    header = ["new build"]
    for way in ("publish", "core", "rdiff"):
        header += [WAYS[way] + " s", "to linear"]
    return table(header + ["publish MiB of memory"], rows)


def version_of(*command):
    done = subprocess.run(command, capture_output=True, text=True)
    found = re.search(r"\d+(\.\d+)+", done.stdout + done.stderr)
    return found.group() if found else "of unknown version"


def machine():
    cpu = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())
    memory = int(re.search(r"MemTotal:\s*(\d+)", Path("/proc/meminfo").read_text()).group(1))
    versions = ", ".join(f"{name} {version_of(*command)}" for name, command in {
        "rdiff": ("rdiff", "--version"),
        "rsync": ("rsync", "--version"),
        "zstd": ("zstd", "--version"),
        "xdelta3": ("xdelta3", "-V"),
        "7zr": ("7zr",),
        "coreutils": ("sha512sum", "--version"),
    }.items())
    return (f"{os.cpu_count()} cores ({cpu.group(1) if cpu else 'unknown'}), "
            f"{memory / MIB:.0f} GiB; {versions}.")


# --- plots

STYLE = """
set terminal svg size {width},{height} dynamic font "Helvetica,Arial,sans-serif,13"
set output "{output}"
text = "#7a828c"
set tics textcolor rgb text nomirror scale 0
set border 0
set title textcolor rgb text
"""


def plot(images, name, width, height, commands):
    script = STYLE.format(width=width, height=height, output=images / f"{name}.svg") + commands
    subprocess.run(["gnuplot", "-"], input=script, text=True, check=True)


PANEL_WIDTH, PANEL_HEIGHT, PANEL_COLUMNS, NAMES_WIDTH = 320, 235, 3, 130


def data_block(name, rows):
    return f"${name} << EOD\n" + "\n".join(rows) + "\nEOD"


def panel_place(panel, rows):
    """Where a panel is, in parts of the whole picture."""
    column, row = panel % PANEL_COLUMNS, panel // PANEL_COLUMNS
    width, height = picture_size(rows)
    left = NAMES_WIDTH + column * PANEL_WIDTH
    top = height - row * PANEL_HEIGHT
    return [f"set lmargin at screen {left / width:.4f}",
            f"set rmargin at screen {(left + PANEL_WIDTH - 20) / width:.4f}",
            f"set tmargin at screen {(top - 32) / height:.4f}",
            f"set bmargin at screen {(top - PANEL_HEIGHT + 6) / height:.4f}"]


def picture_size(rows):
    return NAMES_WIDTH + PANEL_COLUMNS * PANEL_WIDTH, rows * PANEL_HEIGHT


def label_of(values, unit):
    """The first value, and in brackets the other one where it differs."""
    first, *others = dict.fromkeys(figure(value) for value in values)
    return first + "".join(f" ({other})" for other in others) + unit


def dots_panel(profile, marks, unit, panel):
    """One profile: a line a way with a dot a mark, filled for the first, and the values."""
    ways = [way for way in WAYS if profile.has(way)]
    places = {way: -index for index, way in enumerate(WAYS)}
    values = {way: [mark(profile, way) for mark in marks] for way in ways}
    spots = {way: [max(value, 1e-4) for value in values[way]] for way in ways}  # nought has none
    low = min(map(min, spots.values())) / 1.5
    high = max(map(max, spots.values()))
    span = max(high / low, 8)
    high = low * span ** 1.5  # room for the text
    names = [f'"{WAYS[way] if panel % PANEL_COLUMNS == 0 else ""}" {places[way]}' for way in WAYS]
    blocks = []
    parts = []
    for way in ways:
        colour = "#2f81f7" if way == "publish" else "#8b949e"
        name = f"d{panel}_{way.replace('-', '_')}"
        rows = [f"{value:.6g} {places[way]}" for value in spots[way]]
        farthest = f'{max(spots[way]):.6g} {places[way]} "{label_of(values[way], unit)}"'
        blocks += [data_block(name, rows), data_block(name + "_text", [farthest])]
        parts.append(f'${name}_text using ({low:.6g}):2:($1-{low:.6g}):(0) with vectors nohead '
                     f'lw 0.7 dt (2,4) lc rgb "{colour}"')
        parts.append(f'${name}_text using 1:2:3 with labels left offset 0.9,0 '
                     f'textcolor rgb "{colour}" font ",12"')
        for index in range(len(marks)):
            kind = 7 if index == 0 else 6
            parts.append(f'${name} every ::{index}::{index} using 1:2 with points pt {kind} ps 0.8 '
                         f'lw 1.6 lc rgb "{colour}"')
    commands = [f"set xrange [{low:.6g}:{high:.6g}]", f"set yrange [{0.4 - len(WAYS)}:0.6]",
                f"set ytics ({', '.join(names)})", "plot " + ", \\\n    ".join(parts)]
    return blocks, commands


def dots_plot(images, name, profiles, marks, unit):
    def worth_it(profile):
        """Not where the patch is empty, for one."""
        return any(mark(profile, way) >= 0.01 for way in WAYS if profile.has(way) for mark in marks)

    shown = {key: profiles[key] for key in PROFILES
             if key in profiles and worth_it(profiles[key])}
    if not shown:
        return
    rows = -(-len(shown) // PANEL_COLUMNS)
    blocks, body = [], []
    for panel, (key, profile) in enumerate(shown.items()):
        data, commands = dots_panel(profile, marks, unit, panel)
        blocks += data
        body += panel_place(panel, rows)
        body += [f'set title "{PROFILES[key]}" font ",14" offset 0,-0.6'] + commands
    head = "\nset multiplot\nset logscale x\nunset xtics\nunset key\n"
    plot(images, name, *picture_size(rows),
         "\n".join(blocks) + head + "\n".join(body) + "\nunset multiplot\n")


def growth_panel(profiles, sizes, label, place):
    colours = {"publish": "#2f81f7", "core": "#8b949e", "rdiff": "#bf8700"}
    blocks, parts = [], []
    for way, colour in colours.items():
        points = [(size, profiles[name].wall(way)) for name, size in sizes.items()
                  if profiles[name].has(way)]
        if not points:
            continue
        block = f"$g{place}_{way}"
        blocks.append(block + " << EOD\n" + "\n".join(f"{x} {y:.4f}" for x, y in points) + "\nEOD")
        # The straight line through nought and the first point is what "linear" means.
        slope = points[0][1] / points[0][0]
        parts += [f'{slope:.6g} * x with lines lw 1 dt (3,4) lc rgb "{colour}" notitle',
                  f'{block} using 1:2 with linespoints pt 7 ps 0.8 lw 2 lc rgb "{colour}" '
                  f'title "{WAYS[way]}"']
    largest = max(sizes.values())
    tics = ", ".join(f'"{size:,}{"" if place == 0 else ",000"}" {size}' for size in sizes.values())
    body = [f"set xrange [0:{largest * 1.04}]", "set yrange [0:*]", f"set xtics ({tics})",
            f'set xlabel "{label}" textcolor rgb text',
            'set ylabel "seconds" textcolor rgb text offset 1,0',
            "plot " + ", \\\n    ".join(parts)]
    return blocks, body


def growth_plot(images, profiles):
    bytes_blocks, bytes_body = growth_panel(profiles, GROWTH_BYTES, "GiB, mixed", 0)
    files_blocks, files_body = growth_panel(profiles, GROWTH_FILES, "files, small", 1)
    head = """
set multiplot layout 1,2
set key top left Left reverse textcolor rgb text samplen 1.5
set grid ytics lc rgb "#8b949e" lw 0.5 dt (2,4)
set xtics scale 0
"""
    plot(images, "releases-growth", 960, 340, "\n".join(bytes_blocks + files_blocks) + head
         + "\n".join(bytes_body + files_body) + "\nunset multiplot\n")


# --- the page


def picture(name, what):
    return f"![{what}](images/{name}.svg)\n"


def make_plots(images, profiles):
    images.mkdir(parents=True, exist_ok=True)
    dots_plot(images, "releases-wall", profiles, [Profile.wall], " s")
    dots_plot(images, "releases-cpu", profiles, [Profile.cpu], " s")
    dots_plot(images, "releases-memory", profiles,
              [Profile.largest_process, Profile.all_processes], " MiB")
    sizes = [lambda profile, way: profile.mebibytes(way, "patch bytes"),
             lambda profile, way: profile.mebibytes(way, "packed bytes")]
    dots_plot(images, "releases-size", profiles, sizes, " MiB")


def report(profiles, images):
    shown = {PROFILES[key]: profiles[key] for key in PROFILES if key in profiles}
    parts = [f"Measured on {machine()}\n"]
    make_plots(images, profiles)
    parts += [picture("releases-wall", "Wall time of each way and build"),
              picture("releases-cpu", "Processor time of each way and build"),
              picture("releases-memory", "Peak memory of each way and build"),
              "Filled: the largest process. Open, in brackets: all processes at the same time.\n",
              picture("releases-size", "Size of the patch of each way and build"),
              "Filled: as it is. Open, in brackets: packed by `7zr a`.\n"]
    for name, profile in shown.items():
        parts += [f"### {name[0].upper()}{name[1:]}\n", ways_table(profile)]
    if any(profile.was_slow(way) for profile in shown.values() for way in profile.runs):
        parts.append("¹ Timed once, because it is slow.\n")
    parts += ["### Beside the limit\n", limits_table(shown), floors_table(shown)]
    for sizes, unit in ((GROWTH_BYTES, " GiB"), (GROWTH_FILES, ",000 files")):
        if all(name in profiles for name in sizes):
            parts.append(growth_table(profiles, sizes, unit))
    if all(name in profiles for name in {**GROWTH_BYTES, **GROWTH_FILES}):
        growth_plot(images, profiles)
        parts[-2:-2] = ["### Growth\n", picture("releases-growth", "Wall time by size"),
                        "Dotted: in proportion to the smallest.\n"]
    parts += ["### The builds\n", builds_table(shown)]
    return "\n".join(parts)


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    results, page, images = map(Path, sys.argv[1:])
    profiles = {folder.name: Profile(folder) for folder in sorted(results.iterdir())
                if (folder / "runs.csv").exists()}
    if not profiles:
        sys.exit("releases_report.py: no results")
    text = page.read_text()
    if text.count(BEGIN) != 1 or text.count(END) != 1:
        sys.exit(f"releases_report.py: {page} lacks the two marker comments")
    before, rest = text.split(BEGIN)
    after = rest.split(END)[1]
    page.write_text(f"{before}{BEGIN}\n\n{report(profiles, images)}\n{END}{after}")


if __name__ == "__main__":
    main()
