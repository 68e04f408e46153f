#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Measures ways to update an installed build, as whole processes, in turn; prints a table.

Usage: updates.py BIN [synced] [PROFILE...]

BIN holds pellox and the bench_ programs. PROFILE is mixed, huge, small, phaser or monaco (default:
all). Each way starts with a fresh copy of the old build and must end with the new one. With "synced",
which needs a disk, not memory, it measures what waiting for the disk takes beside one sync of the
same bytes instead. Environment: as releases.py.
"""

import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from statistics import median

from releases import Bench, Failure, GIB, HERE, MADE, say, scratch_root

UPDATERS = str(HERE / "updaters.sh")
PROFILES = ["mixed", "huge", "small", "phaser", "monaco"]
UPDATES = ["update", "rdiff"]


class Updates(Bench):
    """One pair of builds, the patch between them, and what is measured on it."""

    def __init__(self, *arguments):
        super().__init__(*arguments)
        self.install = self.folder / "install"
        self.environment["BIN"] = str(self.binaries)
        self.seconds = {}
        self.memory = {}

    def prepare(self):
        shutil.rmtree(self.results, ignore_errors=True)
        self.results.mkdir(parents=True)
        self.make_builds()
        (self.folder / "before").mkdir()
        self.call(self.binaries / "pellox", "sign", "--quiet", "old", "before/core")
        self.call(UPDATERS, "prepare")

    def lay_install(self):
        shutil.rmtree(self.install, ignore_errors=True)
        self.call("cp", "-a", "old", "install")
        self.touch_memory()
        self.warm()

    def touch_memory(self):
        """As much as the new build takes: what a virtual machine has to ask its host for, the next
        to write pays for, whoever that is."""
        spare = self.folder / "spare"
        self.call("cp", "-a", "new", spare)
        shutil.rmtree(spare)

    def note(self, way, figures):
        self.seconds.setdefault(way, []).append(figures[0])
        self.memory[way] = max(self.memory.get(way, 0), figures[3] / 1024)

    def update(self, way):
        self.lay_install()
        self.note(way, self.measure("once", UPDATERS, way))

    def verify(self, way):
        differing = subprocess.run(["diff", "-rq", "new", "install"], cwd=self.folder,
                                   capture_output=True, text=True)
        if differing.returncode != 0:
            raise Failure(f"{way} does not make the new build: {differing.stdout.splitlines()[0]}")

    def check_and_hash(self):
        """On the new build, which the last update has left."""
        self.note("check", self.measure("once", UPDATERS, "check"))
        self.note("hash", self.measure("once", self.binaries / "bench_limits", "hash", "install"))

    def bare(self):
        self.lay_install()
        self.note("bare", self.measure("once", UPDATERS, "bare"))

    def sync_and_one_sync(self):
        """What an update takes that does not wait for the disk, what one sync of all takes after it,
        and what an update takes that waits as it must."""
        self.lay_install()
        plain = self.measure("once", UPDATERS, "update")[0]
        begin = time.monotonic()
        os.sync()
        one_sync = time.monotonic() - begin
        self.lay_install()
        synced = self.measure("once", UPDATERS, "update-synced")[0]
        return plain, one_sync, synced

    def measure_synced(self, repetitions):
        self.prepare()
        rounds = [self.sync_and_one_sync() for _ in range(repetitions)]
        plain, one_sync, synced = (median(column) for column in zip(*rounds))
        ratio = median(row[2] / (row[0] + row[1]) for row in rounds)
        print(f"| {self.name} | {plain:.2f} | {one_sync:.2f} | {synced:.2f} | {ratio:.2f} |",
              flush=True)

    def written(self):
        """Bytes that an update writes, by the kernel's count, and those of the new content."""
        self.lay_install()
        script = '"$0" update && grep wchar /proc/$$/io'
        printed = self.call("bash", "-c", script, UPDATERS)
        needed = sum((self.new / line).stat().st_size
                     for line in (self.folder / "list.written").read_text().splitlines())
        return int(printed.split()[1]), needed

    def limit(self):
        """Seconds that librsync and the digest need on all cores, each byte once."""
        printed = self.call(self.binaries / "bench_limits", "patches", self.old,
                            self.out / "patch", "list.patch", "list.copy", self.folder)
        return float(printed) / os.cpu_count()

    def measure_all(self, repetitions):
        self.prepare()
        for number in range(repetitions):
            say(f"{self.name}: round {number + 1} of {repetitions}")
            for way in UPDATES if number % 2 == 0 else reversed(UPDATES):
                self.update(way)
                self.verify(way)
            self.check_and_hash()
            self.bare()
        written, needed = self.written()
        self.print_row(self.limit(), written / max(needed, 1))

    def print_row(self, limit, written):
        def wall(way):
            return median(self.seconds[way])
        cells = [self.name, f"{wall('update'):.2f}", f"{wall('rdiff'):.2f}",
                 f"{wall('update') / wall('rdiff'):.2f}", f"{limit / wall('update'):.2f}",
                 f"{wall('bare') / wall('update'):.2f}",
                 f"{written:.3f}", f"{self.memory['update']:.0f}",
                 f"{wall('hash') / wall('check'):.2f}"]
        print(f"| {' | '.join(cells)} |", flush=True)


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    binaries = Path(sys.argv[1]).resolve()
    synced = sys.argv[2:3] == ["synced"]
    profiles = sys.argv[3 if synced else 2:] or PROFILES
    scale = float(os.environ.get("SCALE", "1"))
    repetitions = int(os.environ.get("REPETITIONS", "5"))
    if synced:
        print("| build | update --no-sync, s | one sync after it, s | update, s | ratio |")
        print("|---|---|---|---|---|")
    else:
        print("| build | update, s | rdiff, sha512sum and mv, s | ratio | share of the limit | "
              "share of bare files | bytes written / needed | MiB | check, share of hashing |")
        print("|---|---|---|---|---|---|---|---|---|")
    for profile in profiles:
        if profile not in PROFILES:
            sys.exit(f"updates.py: no such profile: {profile} ({', '.join(PROFILES)})")
        needed = (MADE[profile][2] if profile in MADE else 1) * GIB * scale
        with tempfile.TemporaryDirectory(prefix="updates-", dir=scratch_root(needed)) as scratch:
            results = Path(scratch) / "results"
            updates = Updates(profile, binaries, results, Path(scratch), scale)
            (updates.measure_synced if synced else updates.measure_all)(repetitions)


if __name__ == "__main__":
    main()
