#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Measures ways to ship a release on whole builds, as whole processes, in turn.

Usage: releases.py BIN RESULTS [PROFILE...]

BIN holds pellox and the bench_ programs. Each PROFILE (default: all) leaves its figures as CSV in
RESULTS/PROFILE; releases_report.py makes tables and plots of them. The exit status is 3 where some
way has failed, which the figures then say.

Environment:
    TMPDIR       where builds and results lie; default /dev/shm where it is large enough
    REPETITIONS  how often each way is timed, default 5
    SLOW         seconds; a way that takes longer is timed once, default 60
    SCALE        factor of all sizes, default 1; results of another scale are for trying out
    WAYS         names of the ways to take, default all
"""

import csv
import filecmp
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
CONTESTANTS = str(HERE / "contestants.sh")
GIB = 1 << 30

WAYS = ["publish", "core", "rdiff", "xdelta3-1", "xdelta3-9", "zstd-3", "zstd-19", "rsync"]
GROWTH_WAYS = ["publish", "core", "rdiff"]

# What to make, its size in bytes or files, and GiB that it needs in TMPDIR.
MADE = {
    "mixed": ("mixed", GIB, 5),
    "huge": ("huge", GIB, 5),
    "small": ("small", 20000, 4),
    "unchanged": ("unchanged", GIB, 5),
    "program": ("program", GIB // 16, 1),
    "growth-1GiB": ("mixed", GIB, 5),
    "growth-2GiB": ("mixed", 2 * GIB, 8),
    "growth-4GiB": ("mixed", 4 * GIB, 15),
    "growth-5000": ("small", 5000, 1),
    "growth-20000": ("small", 20000, 3),
    "growth-80000": ("small", 80000, 8),
}
PACKAGES = {
    "phaser": ("phaser", "3.88.1", "3.88.2"),
    "monaco": ("monaco-editor", "0.52.0", "0.52.2"),
    "swc": ("@swc/core-linux-x64-gnu", "1.7.39", "1.7.40"),
    "rollup": ("@rollup/rollup-linux-x64-gnu", "4.24.0", "4.24.2"),
}
PROFILES = ["mixed", "huge", "small", "unchanged", "phaser", "monaco", "growth"]
SOME_FAILED = 3  # exit status: there are figures, but not of every way


class Failure(Exception):
    """A way that does not do what it is there for."""


def say(text):
    print(f"{time.strftime('%H:%M:%S')} {text}", file=sys.stderr, flush=True)


def members(profile):
    """The builds that a profile is about."""
    if profile == "growth":
        return [name for name in MADE if name.startswith("growth-")]
    return [profile]


def files_under(folder):
    return sorted(path for path in folder.rglob("*") if path.is_file())


def bytes_under(folder):
    return sum(path.stat().st_size for path in files_under(folder))


def write_csv(path, header, rows):
    with open(path, "w", newline="") as file:
        writer = csv.writer(file, lineterminator="\n")
        writer.writerow(header)
        writer.writerows(rows)


def fetch_package(package, release, folder):
    """One release from the npm registry, by way of a cache folder."""
    cache = HERE.parent / "build" / "npm"
    archive = cache / f"{package.lstrip('@').replace('/', '-')}-{release}.tgz"
    if not archive.exists():
        cache.mkdir(parents=True, exist_ok=True)
        subprocess.run(["npm", "pack", "--silent", f"{package}@{release}"], cwd=cache,
                       stdout=subprocess.DEVNULL, check=True)
    folder.mkdir()
    subprocess.run(["tar", "-xzf", archive, "-C", folder, "--strip-components=1"], check=True)
    # Hidden files are no part of a build.
    for path in sorted(folder.rglob(".*"), reverse=True):
        shutil.rmtree(path) if path.is_dir() else path.unlink()


def classify(old, new):
    """Rows like those of bench_makebuild, for builds that somebody else has made."""
    names = ["unchanged", "changed", "new", "deleted"]
    sums = {name: [0, 0, 0] for name in names}

    def add(name, old_size, new_size):
        for index, value in enumerate((1, old_size, new_size)):
            sums[name][index] += value

    for path in files_under(new):
        before, size = old / path.relative_to(new), path.stat().st_size
        if not before.is_file():
            add("new", 0, size)
        elif filecmp.cmp(before, path, shallow=False):
            add("unchanged", size, size)
        else:
            add("changed", before.stat().st_size, size)
    for path in files_under(old):
        if not (new / path.relative_to(old)).is_file():
            add("deleted", path.stat().st_size, 0)
    return [[name, *sums[name]] for name in names]


def set_times(old, new):
    """Unchanged files get the same time and others do not, as rsync takes it to be."""
    for path in files_under(old):
        os.utime(path, (1.7e9, 1.7e9))
    for path in files_under(new):
        before = old / path.relative_to(new)
        same = before.is_file() and filecmp.cmp(before, path, shallow=False)
        when = 1.7e9 if same else 1.71e9
        os.utime(path, (when, when))


class Bench:
    """One pair of builds in one folder, and all that is measured on it."""

    def __init__(self, name, binaries, results, scratch, scale):
        self.name = name
        self.binaries = binaries
        self.results = results / name
        self.folder = scratch
        self.scale = scale
        self.old = scratch / "old"
        self.new = scratch / "new"
        self.out = scratch / "out"
        self.environment = dict(os.environ, PELLOX=str(binaries / "pellox"), LC_ALL="C")
        self.runs = []
        self.summary = []
        self.limits = []

    def call(self, *command):
        """Runs a command, which must succeed; what it prints is the result."""
        done = subprocess.run(command, cwd=self.folder, env=self.environment,
                              capture_output=True, text=True)
        if done.returncode != 0:
            last = (done.stderr.strip() or "no reason given").splitlines()[-1]
            reason = f"{' '.join(map(str, command[-2:]))}: {last}"
            raise Failure(reason.replace(f"{self.folder}/", ""))
        return done.stdout

    def clear_output(self):
        shutil.rmtree(self.out, ignore_errors=True)
        (self.folder / "before").mkdir(exist_ok=True)

    def warm(self):
        """Where files lie on a disk, they are read and nothing waits to be written."""
        if Path("/dev/shm") in self.folder.parents:
            return
        os.sync()
        for path in files_under(self.old) + files_under(self.new):
            with open(path, "rb") as file:
                while file.read(1 << 20):
                    pass

    def measure(self, mode, *command):
        """Wall, user, system seconds, largest process and all processes in KiB."""
        figures = self.folder / "figures"
        self.call(self.binaries / "bench_measure", figures, mode, *command)
        return [float(word) for word in figures.read_text().split()]

    # --- the steps

    def make_builds(self):
        say(f"{self.name}: making the builds")
        if self.name in PACKAGES:
            package, old, new = PACKAGES[self.name]
            fetch_package(package, old, self.old)
            fetch_package(package, new, self.new)
            rows = classify(self.old, self.new)
        else:
            kind, size, _ = MADE[self.name]
            printed = self.call(self.binaries / "bench_makebuild", kind,
                                str(int(size * self.scale)), self.old, self.new)
            rows = [line.split(",") for line in printed.splitlines()[1:]]
        set_times(self.old, self.new)
        write_csv(self.results / "build.csv", ["fate", "files", "old bytes", "new bytes"], rows)

    def check(self, way, packing):
        """Whether what a way makes rebuilds the new build; and what needs to be found out once."""
        say(f"{self.name}: checking {way}")
        self.clear_output()
        self.call(CONTESTANTS, "keep", way)
        self.warm()
        figures = self.measure("sum", CONTESTANTS, "make", way)
        self.clear_install()
        shutil.copytree(self.old, self.folder / "install")
        self.call(CONTESTANTS, "apply", way)
        differing = subprocess.run(["diff", "-rq", "new", "install"], cwd=self.folder,
                                   capture_output=True, text=True)
        self.clear_install()
        if differing.returncode != 0:
            raise Failure(f"does not rebuild the new build: {differing.stdout.splitlines()[0]}")
        if way == "publish":
            self.check_signatures()
            self.list_outputs()
        patch = self.out / "patch"
        return figures, bytes_under(patch), self.pack(patch) if packing else ""

    def clear_install(self):
        shutil.rmtree(self.folder / "install", ignore_errors=True)

    def check_signatures(self):
        """The signatures of a release are as good as those that are made alone."""
        alone = self.folder / "alone"
        self.call(self.binaries / "pellox", "sign", "--quiet", "new", alone)
        self.call("diff", "-rq", alone, self.out / "signatures")
        shutil.rmtree(alone)

    def list_outputs(self):
        with open(self.folder / "outputs", "w") as file:
            for path in files_under(self.out):
                file.write(f"{path.stat().st_size}\t{path.relative_to(self.out)}\n")

    def pack(self, patch):
        archive = self.folder / "packed.7z"
        names = sorted(path.name for path in patch.iterdir())
        subprocess.run(["7zr", "a", "-bd", "-bso0", archive, *names], cwd=patch, check=True)
        size = archive.stat().st_size
        archive.unlink()
        return size

    def check_all(self, ways, slow, packing):
        """The ways that are to be timed."""
        good = []
        for way in ways:
            try:
                figures, patch, packed = self.check(way, packing)
            except Failure as failure:
                self.note_failure(way, failure)
                continue
            self.summary.append([way, "ok", int(figures[4]), patch, packed])
            if figures[0] > slow:
                self.note_run(way, 0, figures)
            else:
                good.append(way)
        self.write_summary()
        return good

    def note_failure(self, way, failure):
        """It is reported as failed, whatever else there is of it."""
        say(f"{self.name}: {way} FAILED: {failure}")
        self.summary = [row for row in self.summary if row[0] != way]
        self.summary.append([way, f"failed: {failure}", "", "", ""])
        self.write_summary()

    def write_summary(self):
        write_csv(self.results / "summary.csv",
                  ["way", "status", "all processes KiB", "patch bytes", "packed bytes"],
                  self.summary)

    def is_good(self, way):
        return [way, "ok"] in [row[:2] for row in self.summary]

    def note_run(self, way, number, figures):
        self.runs.append([way, number, *figures[:3], int(figures[3])])
        write_csv(self.results / "runs.csv",
                  ["way", "round", "wall", "user", "system", "largest process KiB"], self.runs)

    def time_way(self, way, number):
        self.clear_output()
        self.warm()
        self.note_run(way, number, self.measure("once", CONTESTANTS, "make", way))

    def time_floor(self, number):
        """What the work on this build cannot do without, as a process of its own."""
        limits = self.binaries / "bench_limits"
        self.clear_output()
        self.warm()
        self.note_run("hash alone", number, self.measure("once", limits, "hash", self.new))
        if self.name == "small" and (self.folder / "outputs").exists():
            self.note_run("hash and create", number, self.measure(
                "once", limits, "create", self.new, self.folder / "outputs", self.out))

    def list_changed(self):
        changed, signed, largest, total = [], 0, 0, 0
        for path in files_under(self.new):
            name, size = path.relative_to(self.new), path.stat().st_size
            before = self.old / name
            total += size
            largest = max(largest, size)
            same = before.is_file() and before.stat().st_mtime == path.stat().st_mtime
            if not same:
                signed += size
                if before.is_file():
                    changed.append(str(name))
        (self.folder / "changed").write_text("".join(name + "\n" for name in changed))
        return [total, largest, signed]

    def measure_limits(self, number, sizes):
        self.warm()
        printed = self.call(self.binaries / "bench_limits", "rates", self.new, "before/core",
                            "changed", self.folder)
        self.limits.append([number, *printed.strip().split(","), *sizes, os.cpu_count()])
        write_csv(self.results / "limits.csv",
                  ["round", "digest B/s", "signature B/s", "delta s", "bytes hashed",
                   "largest file", "bytes signed", "cores"], self.limits)

    def run(self, ways, repetitions, slow):
        shutil.rmtree(self.results, ignore_errors=True)
        self.results.mkdir(parents=True)
        growth = self.name.startswith("growth-")
        self.make_builds()
        good = self.check_all(ways, slow, packing=not growth)
        sizes = self.list_changed()
        (self.folder / "before").mkdir(exist_ok=True)
        self.call(CONTESTANTS, "keep", "publish")
        for number in range(1, repetitions + 1):
            say(f"{self.name}: round {number} of {repetitions}")
            turn = number % max(len(good), 1)  # each is the first once
            for way in good[turn:] + good[:turn]:
                try:
                    self.time_way(way, number)
                except Failure as failure:
                    self.note_failure(way, failure)
            good = [way for way in good if self.is_good(way)]
            if not growth:
                self.time_floor(number)
                self.measure_limits(number, sizes)


def scratch_root(needed):
    """TMPDIR, or memory where that has the room, or where temporary files go."""
    if "TMPDIR" in os.environ:
        return os.environ["TMPDIR"]
    with open("/proc/meminfo") as file:
        lines = dict(line.split(":") for line in file)
    available = int(lines["MemAvailable"].split()[0]) * 1024
    shm = "/dev/shm"
    # What runs needs memory, too.
    if os.path.isdir(shm) and min(shutil.disk_usage(shm).free, available - 4 * GIB) >= needed:
        return shm
    return tempfile.gettempdir()


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    binaries, results = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
    profiles = sys.argv[3:] or PROFILES
    for profile in profiles:
        if profile not in PROFILES:
            print(f"releases.py: no such profile: {profile} ({', '.join(PROFILES)})",
                  file=sys.stderr)
            sys.exit(2)
    repetitions = int(os.environ.get("REPETITIONS", "5"))
    slow = float(os.environ.get("SLOW", "60"))
    scale = float(os.environ.get("SCALE", "1"))
    chosen = os.environ.get("WAYS", "").split()
    if os.getloadavg()[0] > 0.5:
        say(f"something else runs here: load {os.getloadavg()[0]:.2f}")

    failed = False
    for profile in profiles:
        for name in members(profile):
            ways = GROWTH_WAYS if profile == "growth" else WAYS
            ways = [way for way in ways if not chosen or way in chosen]
            needed = MADE[name][2] * GIB * scale if name in MADE else GIB
            root = scratch_root(needed)
            with tempfile.TemporaryDirectory(prefix="releases-", dir=root) as scratch:
                bench = Bench(name, binaries, results, Path(scratch), scale)
                bench.run(ways, repetitions, slow)
                failed |= any(row[1] != "ok" for row in bench.summary)
    if failed:
        say("not every way rebuilds the new build")
        sys.exit(SOME_FAILED)


if __name__ == "__main__":
    main()
