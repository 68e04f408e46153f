# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# What the commands of the documentation find where they are run. Sourced by check_samples.py.

# Random bytes that are the same each time. Usage: noise SEED BYTES
noise() {
    openssl enc -aes-128-ctr -pass "pass:$1" -nosalt -pbkdf2 -iter 1 </dev/zero 2>/dev/null |
        head -c "$2" || true
}

# Release 1.0 and 1.1 of a game, and an installed 1.0: so small that each sample can have a new one.
# The pages show its sizes.
new_world() {
    find . -mindepth 1 -maxdepth 1 -exec rm -rf {} +
    mkdir -p releases/1.0/data releases/1.1/data/levels
    echo "A game." | tee releases/1.0/README >releases/1.1/README
    echo "Once upon a time" >releases/1.0/data/intro.txt
    noise world 3000000 >releases/1.0/data/world.pak
    noise game 40000 >releases/1.0/game.exe
    echo "volume=1" >releases/1.0/settings.ini
    noise caves 23893 >releases/1.1/data/levels/caves.map
    { head -c 1500000 releases/1.0/data/world.pak && echo "a new place" &&
        tail -c 1500000 releases/1.0/data/world.pak; } >releases/1.1/data/world.pak
    { head -c 39000 releases/1.0/game.exe && noise mended 1004; } >releases/1.1/game.exe
    cp releases/1.0/settings.ini releases/1.1/settings.ini
    installed 1.0
}

# The installed build is release $1.
installed() {
    rm -rf installed/game
    mkdir -p installed
    cp -r "releases/$1" installed/game
}

# A release of its own for what only some documents speak of.

settings() { # changed
    echo "volume=2" >releases/1.1/settings.ini
}

symbols() {
    noise symbols 310000 >releases/1.1/game.pdb
}

workshop() { # what a list leaves out, and what it does not
    symbols
    mkdir -p releases/1.1/crash releases/1.1/docs/de/old releases/1.1/tools
    for file in crash/handler.pdb docs/manual.txt docs/draft2.txt docs/de/old/draft1.txt \
        tools/readme.txt; do
        echo a file. >"releases/1.1/$file"
    done
}

music() { # under another name, in a patch of four files
    noise music 71000 | tee releases/1.0/music.ogg >releases/1.0/music.copy
    mkdir -p releases/1.1/data/music
    cp releases/1.0/music.ogg releases/1.1/data/music/theme.ogg
    cp releases/1.0/music.ogg releases/1.1/music.ogg
    rm releases/1.0/music.copy
    cp releases/1.0/data/world.pak releases/1.1/data/world.pak
}

levels() { # one that is for the most part an old one
    mkdir -p releases/1.0/data/levels
    noise levels 30000 >releases/1.0/data/levels/old.map
    { head -c 14336 releases/1.0/data/levels/old.map && noise caves 9557; } \
        >releases/1.1/data/levels/caves.map
}

signed() {
    pellox sign -q releases/1.0 signatures/1.0
}

published() {
    signed
    pellox publish -q releases/1.1 --old-signatures signatures/1.0 --patch patches/1.0-1.1 \
        --signatures signatures/1.1
}

keys() {
    [ -e publisher.key ] || pellox keygen -q publisher.key publisher.pub
}

sealed() {
    published
    keys
    pellox seal -q patches/1.0-1.1 --signatures signatures/1.0 --release 2 --key publisher.key
}

packed() {
    pellox pack -q --force patches/1.0-1.1 upload/1.0-1.1.7z
    rm -rf download
    cp -r upload download
}

harmed() { # an installed 1.1 of which one file is changed and one is missing
    installed 1.1
    echo harmed >>installed/game/game.exe
    rm installed/game/data/levels/caves.map
}

interrupted() { # killed while it puts files in place
    published
    FAULTS_PATH=$PWD/installed/game/data/world.pak FAULTS_CALLS=rename FAULTS_AT=1 FAULTS_DO=kill \
        LD_PRELOAD=$FAULTS pellox update -q installed/game patches/1.0-1.1 || true
    test -e installed/game/.pellox/journal
}

launcher_built() {
    cp "$SOURCES/tests/docs/inside/main.cpp" launcher.cpp
    # shellcheck disable=SC2046 # the flags are words
    "$CXX" -std=c++17 -fPIC launcher.cpp -o launcher $(pkg-config --cflags --libs Pellox)
}

applied() {
    pellox apply -q installed/game patches/1.0-1.1
}

# All that command $1 of the program wants to find, for documents that name one after the other.
prepare() {
    case $1 in
    sign | keygen) ;;
    diff | publish) signed ;;
    seal) published && keys ;;
    check) published && installed 1.1 ;;
    repair) published && installed 1.1 && echo harmed >installed/game/README ;;
    record) sealed && installed 1.1 ;;
    verify) published && applied ;;
    unpack) published && packed && rm -rf patches/1.0-1.1 ;;
    copy) mkdir download && noise data 100000 >download/data.pak ;;
    *) published ;;
    esac
}
