#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Measures how small deltas are, and what making and applying them costs; prints a Markdown table.

Usage: deltas.py BIN [PROFILE...]

BIN holds pellox and the bench_ programs. PROFILE is mixed, program, phaser, monaco, swc or rollup
(default: all). Every way must rebuild the new build. Sizes are those of the whole patch, new files
among them, as it is and packed by 7zr; seconds are the medians of making it, of all ways in turn.
Environment: as releases.py, but REPETITIONS is 3 by default; 0 leaves all times out.
"""

import os
import sys
import tempfile
from pathlib import Path
from statistics import median

from releases import CONTESTANTS, GIB, MADE, Bench, Failure, say, scratch_root

EFFORTS = ["fastest", "balanced", "smallest"]
WAYS = ["core", *(f"effort-{effort}" for effort in EFFORTS), "xdelta3-1", "xdelta3-9", "zstd-3",
        "zstd-19", "bsdiff"]
NAMES = {"core": "whole blocks (core)", "xdelta3-1": "xdelta3 -1", "xdelta3-9": "xdelta3 -9",
         "zstd-3": "zstd -3", "zstd-19": "zstd -19"}
PROFILES = ["mixed", "program", "phaser", "monaco", "swc", "rollup"]


class Deltas(Bench):
    """One pair of builds and the patches between them."""

    def measure_ways(self, ways, repetitions, slow):
        self.make_builds()
        sizes, seconds, packed = {}, {way: [] for way in ways}, {}
        good = []
        for way in ways:
            try:
                figures, sizes[way], packed[way] = self.check(way, packing=True)
            except Failure as failure:
                say(f"{self.name}: {way} FAILED: {failure}")
                continue
            if figures[0] > slow and repetitions > 0:
                seconds[way].append(figures[0])
            else:
                good.append(way)
        for number in range(repetitions):
            say(f"{self.name}: round {number + 1} of {repetitions}")
            turn = number % max(len(good), 1)
            for way in good[turn:] + good[:turn]:
                self.clear_output()
                self.warm()
                seconds[way].append(self.measure("once", CONTESTANTS, "make", way)[0])
        for way in sizes:
            name = NAMES.get(way, way.replace("effort-", "old build, "))
            time = f"{median(seconds[way]):.2f}" if seconds[way] else ""
            print(f"| {self.name} | {name} | {sizes[way]:,} | {packed[way]:,} | {time} |",
                  flush=True)


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    binaries = Path(sys.argv[1]).resolve()
    repetitions = int(os.environ.get("REPETITIONS", "3"))
    slow = float(os.environ.get("SLOW", "60"))
    scale = float(os.environ.get("SCALE", "1"))
    ways = os.environ.get("WAYS", "").split() or WAYS
    print("| build | deltas | patch, bytes | packed, bytes | making it, s |")
    print("|---|---|---|---|---|")
    for profile in sys.argv[2:] or PROFILES:
        needed = MADE[profile][2] * GIB * scale if profile in MADE else GIB
        with tempfile.TemporaryDirectory(prefix="deltas-", dir=scratch_root(needed)) as scratch:
            results = Path(scratch) / "results"
            (results / profile).mkdir(parents=True)
            Deltas(profile, binaries, results, Path(scratch), scale).measure_ways(
                ways, repetitions, slow)


if __name__ == "__main__":
    main()
