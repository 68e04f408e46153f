#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Makes up the patch of a game, inspects it and draws the report that the documentation shows.
# The payloads are holes but for the commands of the deltas, so gigabytes take a second.
# Usage: scripts/inspect-example.sh [FOLDER]
# FOLDER keeps the patch and report.html; without it docs/images/inspect-report.png is drawn anew,
# with what "scripts/setup.sh browser" installs.
set -euo pipefail
cd "$(dirname "$0")/.."

pellox=${PELLOX:-build/release/bin/pellox}
[ -x "$pellox" ] || { echo "inspect-example.sh: $pellox is missing: build it, or set PELLOX" >&2; exit 1; }
if [ $# -gt 0 ]; then
    work=$1
    mkdir -p "$work"
else
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
fi
patch=$work/2.4-2.5
rm -rf "$patch"
mkdir -p "$patch"

# A random number wherever arithmetic names it; the same ones, so the same patch, every time.
seed=5
r='(seed = (seed * 1103515245 + 12345) & 2147483647) >> 8'

rules=()
separator=
rule() { # NAME PATH [MEMBERS]
    rules+=("$separator{\"rule\":\"$1\",\"relative_path\":\"$2\"${3-}}")
    separator=,
}

number() { # N: eight bytes
    local hex
    printf -v hex '%016x' "$1"
    printf '%b' "\\x${hex:0:2}\\x${hex:2:2}\\x${hex:4:2}\\x${hex:6:2}\\x${hex:8:2}\\x${hex:10:2}\\x${hex:12:2}\\x${hex:14:2}"
}

changed() { # PATH NEW_KIB LITERAL_PERCENT
    local size=$(($2 * 1024)) file=$patch$1 literal copies i
    copies=$((1 + r % 12))
    literal=$(((size - copies * 1000) / 100 * $3 + 50))
    mkdir -p "${file%/*}"
    {
        printf 'rs\2\66'
        for ((i = 1; i < copies; ++i)); do
            printf '\x54'; number $((i * 70000)); number 1000
        done
        printf '\x54'; number 0; number $((size - literal - (copies - 1) * 1000))
        printf '\x44'; number "$literal"
    } >"$file"
    truncate -s +$((literal + 1)) "$file" # the literal and the end of the delta
    rule patch "$1" ",\"file_size\":$size,\"sha512\":\"$(printf '%0128d' 0)\""
}

added() { # PATH KIB
    mkdir -p "$patch${1%/*}"
    truncate -s "$(($2 * 1024 + r % 1024))" "$patch$1"
    rule copy "$1"
}

for level in harbour foundry glacier orchard lighthouse catacombs; do
    changed "/content/levels/$level/terrain.pak" "$((90000 + r % 330001))" "$((2 + r % 17))"
    changed "/content/levels/$level/lightmaps.bin" "$((20000 + r % 130001))" "$((35 + r % 64))"
    changed "/content/levels/$level/navmesh.bin" "$((2000 + r % 14001))" "$((5 + r % 66))"
    cells=$((6 + r % 11))
    for ((cell = 1; cell <= cells; ++cell)); do
        changed "/content/levels/$level/cells/cell_$(printf %02d "$cell").dat" \
            "$((3000 + r % 23001))" "$((1 + r % 60))"
    done
done
for texture in bark brick canvas cobble copper enamel fern glass granite gravel ivy leather linen \
    marble moss oak paint parchment plaster reed rope rust sand slate snow steel straw tile velvet; do
    changed "/content/textures/$texture.dds" "$((2500 + r % 40501))" "$((12 + r % 89))"
done
for season in autumn winter; do
    for ((i = 1; i <= 14; ++i)); do
        added "/content/textures/$season/foliage_$(printf %02d "$i").dds" "$((700 + r % 8301))"
    done
done
for theme in arrival embers descent homecoming tides; do
    added "/content/audio/music/$theme.ogg" "$((5200 + r % 9601))"
done
for voice in captain smith warden scholar; do
    changed "/content/audio/voices/$voice.bank" "$((30000 + r % 60001))" "$((3 + r % 28))"
    for ((i = 1; i <= 40; ++i)); do
        added "/content/audio/voices/$voice/line_$(printf %03d "$i").ogg" "$((40 + r % 381))"
    done
done
for ((i = 1; i <= 260; ++i)); do
    changed "/content/shaders/cache/$(printf %04x "$((i * 251))").bin" "$((40 + r % 861))" "$((20 + r % 81))"
done
added /content/video/chapter_five.webm 118000
for binary in client.exe engine.dll physics.dll; do
    changed "/bin/$binary" "$((18000 + r % 72001))" "$((15 + r % 31))"
done
for language in de en es fr it ja pl pt tr uk zh; do
    changed "/text/$language.json" "$((300 + r % 1101))" "$((4 + r % 17))"
done
for old in /content/audio/music/overture.ogg /content/levels/harbour/cells/cell_17.dat \
    /content/video/chapter_one.webm /bin/updater.old; do
    rule delete "$old"
done
printf '[%s]\n' "${rules[*]}" >"$patch/patchRules.json"

report=$(realpath "$work")/report.html
"$pellox" inspect "$patch" --html "$report" --top 5
[ $# -eq 0 ] || exit 0

picture=docs/images/inspect-report.png
mkdir -p "${picture%/*}"
chromium --headless=new --no-sandbox --disable-gpu --hide-scrollbars --user-data-dir="$work/profile" \
    --window-size=1280,1460 --virtual-time-budget=5000 \
    --screenshot="$PWD/$picture" "file://$report" 2>"$work/chromium.log" ||
    { cat "$work/chromium.log" >&2; exit 1; }
pngquant --force --skip-if-larger --output "$picture" 256 "$picture" # a third of the size
echo "$picture: $(stat -c %s "$picture") bytes"
