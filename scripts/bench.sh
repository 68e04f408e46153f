#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Measures how fast things are beside what people use instead, in turn in one run.
# Usage: scripts/bench.sh [primitives [FILTER] | releases [PROFILE]... | updates [PROFILE]... |
#            deltas [PROFILE]...]   (default: primitives and releases)
#
# primitives: single operations of the library and the program beside rdiff, openssl, cp, dd and
#     7zr, printed as a table; where there are two others, the quicker one counts. FILTER is a
#     regular expression of their names. Needs about 4 GiB in $TMPDIR, which should be in memory or
#     on a quick disk.
# releases: whole releases beside other ways to ship them, into docs/benchmarks.md and docs/images.
#     PROFILE is mixed, huge, small, unchanged, phaser, monaco or growth (default: all); the others
#     keep their last results, which are CSV files in build/benchmarks. Takes an hour or two, most
#     of it for the slowest tools, and up to 15 GiB in $TMPDIR or memory. SCALE=0.02 tries it all
#     out in minutes and leaves the docs alone.
# updates: installed builds updated and checked, beside rdiff, sha512sum and mv, and the digest.
#     PROFILE is mixed, huge, small, phaser or monaco. Takes five minutes. "updates synced" measures
#     instead what waiting for the disk takes beside one sync; TMPDIR must be on a disk then.
# deltas: how small patches are beside those of tools that see both builds. PROFILE is mixed,
#     program, phaser, monaco, swc or rollup. Takes an hour, most of it for the slowest tools.
# Environment: REPETITIONS (9, 5, 5 and 3), and what benchmarks/releases.py tells.
set -euo pipefail
cd "$(dirname "$0")/.."

main() {
    case ${1:-both} in
    both)
        prepare
        primitives .
        releases
        ;;
    primitives)
        prepare
        primitives "${2:-.}"
        ;;
    releases)
        prepare
        releases "${@:2}"
        ;;
    updates | deltas)
        prepare
        "benchmarks/$1.py" build/release/bin "${@:2}"
        ;;
    *)
        echo "usage: scripts/bench.sh [primitives [FILTER] | (releases|updates|deltas) [PROFILE]...]" >&2
        exit 2
        ;;
    esac
}

prepare() {
    scripts/setup.sh build bench demo >&2
    cmake --preset release -DPELLOX_BUILD_BENCHMARKS=ON >/dev/null
    cmake --build --preset release --target pellox bench_primitives bench_files bench_makebuild \
        bench_measure bench_limits >&2
}

primitives() { # FILTER
    # Random interleaving sets runs of both sides side by side, so that a machine that changes its
    # speed changes it for both.
    local results=build/release/bench.csv
    : >"$results"
    for program in bench_primitives bench_files; do
        build/release/bin/$program --benchmark_filter="$1" \
            --benchmark_enable_random_interleaving=true \
            --benchmark_repetitions="${REPETITIONS:-9}" \
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
}

releases() { # [PROFILE]...
    local results=build/benchmarks page=docs/benchmarks.md images=docs/images status=0
    if [ "${SCALE:-1}" != 1 ]; then
        results=build/benchmarks-scaled
        page=$results/benchmarks.md
        images=$results/images
        mkdir -p "$results"
        sed -n '/^<!-- releases/p' docs/benchmarks.md >"$page"
    fi
    benchmarks/releases.py build/release/bin "$results" "$@" || status=$?
    # Some way has failed: the page says which.
    [ "$status" -eq 0 ] || [ "$status" -eq 3 ] || return "$status"
    benchmarks/releases_report.py "$results" "$page" "$images"
    echo "$page"
    return $status
}

main "$@"
