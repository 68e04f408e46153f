#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Measures the library and the program beside rdiff, openssl, cp, dd and 7zr, in turn in one run,
# and prints a table. Where there are two others, the quicker one counts.
# Usage: scripts/bench.sh [FILTER]   (a regular expression of benchmark names)
# Needs about 4 GiB in $TMPDIR, which should be in memory or on a quick disk.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh build bench >&2
cmake --preset release -DPELLOX_BUILD_BENCHMARKS=ON >/dev/null
cmake --build --preset release --target bench_primitives bench_files pellox >&2

# Random interleaving sets runs of both sides side by side, so that a machine that changes its
# speed changes it for both.
results=build/release/bench.csv
: >"$results"
for program in bench_primitives bench_files; do
    build/release/bin/$program --benchmark_filter="${1:-.}" \
        --benchmark_enable_random_interleaving=true --benchmark_repetitions="${REPETITIONS:-9}" \
        --benchmark_min_time="${MIN_TIME:-0.2}" --benchmark_report_aggregates_only=true \
        --benchmark_format=console --benchmark_out_format=csv \
        --benchmark_out="$results.part" >&2
    cat "$results.part" >>"$results"
done

awk -F, '
    BEGIN {
        print "| operation | file | MiB/s | instead | MiB/s | time, ours / theirs |"
        print "|---|---|---|---|---|---|"
    }
    /^"[^"]*real_time(_median)?"/ { # a single repetition has no median
        line = $0
        sub(/^"/, "", line)
        name = line
        sub(/".*/, "", name)      # operation|program/size/...
        rest = line
        sub(/^[^"]*",/, "", rest)
        split(rest, field, ",")   # iterations, real, cpu, unit, bytes per second
        split(name, part, "|")
        split(part[2], word, "/")
        key = part[1] "|" word[2]
        rate = field[5] / 1048576
        if (word[1] == "pellox") {
            order[++count] = key
            time[key] = field[2]; speed[key] = rate
        } else if (!(key in other) || field[2] < other_time[key]) {
            other[key] = word[1]; other_time[key] = field[2]; other_speed[key] = rate
        }
    }
    END {
        for (i = 1; i <= count; i++) {
            key = order[i]
            split(key, part, "|")
            printf "| %s | %s MiB | %.0f | %s | %.0f | %.2f |\n", part[1], part[2], speed[key], \
                other[key], other_speed[key], time[key] / other_time[key]
        }
    }' "$results"
