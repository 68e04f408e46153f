#!/bin/sh
# SPDX-License-Identifier: MIT
# Makes a release with the program, packs and unpacks it, and updates a build to it.
# Usage: PELLOX WORK_FOLDER
set -eu
pellox=$1
mkdir "$2"
cd "$2"
mkdir releases releases/1 releases/2
head -c 3000000 /dev/urandom >releases/1/world.pak
{
    head -c 1000000 releases/1/world.pak
    echo news
    tail -c 1500000 releases/1/world.pak
} >releases/2/world.pak
echo new >releases/2/notes.txt
cp -r releases/1 installed
"$pellox" --version
"$pellox" sign -q releases/1 signatures
"$pellox" publish -q releases/2 --old-signatures signatures --patch patch --signatures signatures-2
"$pellox" pack -q patch patch.7z
"$pellox" unpack -q patch.7z arrived
"$pellox" update installed arrived
"$pellox" check installed signatures-2
diff -r releases/2 installed
"$pellox" help >/dev/null
